#include "cli/dir_record.h"

#include "cli/attributes.h"
#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/dsinfo.h"
#include "cli/entry.h"
#include "cli/refusal.h"
#include "host/files.h"
#include "po/dir_po.h"
#include "podb/sqlite_podb.h"
#include "refhost/record.h"

namespace cli {
namespace {

cr_status_t set_fields(DirPO* entry, const refhost::RecordFields& fields) {
  return refhost::set_fields(entry->record(), fields) == 0 ? CR_STATUS_OK : *__cr_errno_location();
}

cr_status_t apply(const IngestJob& job, const std::string& directory, DirPO* entry,
                  ds_info_t* delta) {
  SQLitePODB db(job.root, directory);
  std::vector<PO*> unused;
  std::string action;
  return keep_errno_of(
      static_cast<cr_status_t>(entry->update(&db, *delta, unused, unused, action)));
}

bool is_protected(const IngestJob& job, const std::string& directory) {
  DirPO stored(job.dsid);
  return stored.load(job.root, directory) == 0 && protected_entry(stored.record(), job.clock);
}

// Why the directory is to stay; a problem without a text when nothing stands against its deletion.
Problem objection(const IngestJob& job, const std::string& directory) {
  if (is_protected(job, directory)) {
    return {directory, CR_STATUS_IMMUTABLE, "kept: it is protected"};
  }
  const Refusal refusal = content_refusal(job.root, directory);
  return {directory, refusal.status, refusal.text.empty() ? "" : "kept: " + refusal.text};
}

}  // namespace

void store_directory(const IngestJob& job, const std::string& directory,
                     const struct stat& attributes, IngestOutcome* outcome) {
  DirPO incoming(job.root, directory, job.dsid);
  refhost::RecordFields fields = refhost::get_fields(incoming.record());
  fields.type = PO_TYPE_DIR;
  set_attributes(&fields, attributes);
  cr_status_t status = set_fields(&incoming, fields);
  DirPO stored(job.dsid);
  if (has_record(directory) && stored.load(job.root, directory) == 0) {
    if (POEqualsPO(stored.record(), incoming.record(), 0) != 0) return;
    if (protected_entry(stored.record(), job.clock)) status = CR_STATUS_IMMUTABLE;
  }
  if (status == CR_STATUS_OK) status = apply(job, directory, &incoming, &outcome->delta);
  if (status == CR_STATUS_OK) return;
  outcome->not_done({directory, status, "the directory's record is not stored"});
}

cr_status_t store_default_directory(const IngestJob& job, const std::string& directory,
                                    IngestOutcome* outcome) {
  if (has_record(directory)) return CR_STATUS_OK;
  DirPO entry(job.dsid);
  const unsigned int loaded = entry.load(job.root, directory);
  if (loaded != 0) return static_cast<cr_status_t>(loaded);
  return apply(job, directory, &entry, &outcome->delta);
}

void remove_directory(const IngestJob& job, const std::string& directory, IngestOutcome* outcome) {
  const Problem kept = objection(job, directory);
  if (!kept.text.empty()) return outcome->not_done(kept);
  DirPO gone(job.root, directory, job.dsid);
  refhost::RecordFields fields = refhost::get_fields(gone.record());
  fields.type = PO_TYPE_DIR;
  fields.mod_type = PO_MODTYPE_DELETE;
  ds_info_t delta{};
  const bool counted = has_record(directory);
  cr_status_t status = set_fields(&gone, fields);
  if (status == CR_STATUS_OK) status = apply(job, directory, &gone, &delta);
  // The library counts a directory that it kept as removed; here it is not.
  if (status == CR_STATUS_OK && wa_isdir(directory.c_str())) status = CR_STATUS_NOT_EMPTY;
  if (status != CR_STATUS_OK) return outcome->not_done({directory, status, "not removed"});
  if (counted) add_counters(&outcome->delta, delta);
  ++outcome->counts.removed_directories;
}

}  // namespace cli
