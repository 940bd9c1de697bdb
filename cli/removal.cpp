#include "cli/removal.h"

#include "cli/cause.h"
#include "cli/directory_batch.h"
#include "cli/entry.h"
#include "podb/sqlite_podb.h"
#include "refhost/record.h"

namespace cli {
namespace {

Refusal entry_refusal(cr_status_t status, const PO* entry, const ComplianceClock& clock) {
  if (status == CR_STATUS_NOT_FOUND) return {status, "no such entry in the catalog"};
  if (is_damage(status)) {
    return {CR_STATUS_OK, std::string("not removed, as it may be protected: ") + kDamagedText};
  }
  if (status != CR_STATUS_OK) return {status, "not removed: the entry cannot be read"};
  const std::string protection = protection_text(entry->record(), clock);
  if (!protection.empty()) return {CR_STATUS_IMMUTABLE, "not removed: " + protection};
  return {};
}

class FileRemoval : public Removal {
 public:
  using Removal::Removal;

  Refusal refusal() const override {
    std::unique_ptr<FilePO> entry;
    const cr_status_t status = read_file(path_, &entry);
    return entry_refusal(status, entry.get(), clock_);
  }

  CatalogPath guard() const override { return path_.parent(); }

  cr_status_t apply(IngestOutcome* outcome) const override {
    IngestJob job;
    job.root = path_.root;
    job.dsid = *path_.dsid();
    SQLitePODB db(path_.root, path_.parent().full());
    const auto remove = [this](RowBatch& batch) {
      batch.remove(path_.leaf());
      return true;
    };
    try {
      run_batch(job, db, remove, outcome);
    } catch (const DirectoryError& error) {
      return error.status;
    } catch (const EntryError& error) {
      return error.status;
    }
    return outcome->counts.removed != 0 ? CR_STATUS_OK : CR_STATUS_IMMUTABLE;  // refused after all
  }
};

class DirectoryRemoval : public Removal {
 public:
  using Removal::Removal;

  Refusal refusal() const override {
    if (path_.components.size() < 2) {
      return {CR_STATUS_NOT_EMPTY, "not removed: it is a data store"};
    }
    std::unique_ptr<DirPO> entry;
    const cr_status_t status = read_directory(path_, &entry);
    Refusal found = entry_refusal(status, entry.get(), clock_);
    if (!found.text.empty()) return found;
    Refusal content = content_refusal(path_.root, path_.full());
    if (!content.text.empty()) content.text = "not removed: " + content.text;
    return content;
  }

  CatalogPath guard() const override { return path_; }

  cr_status_t apply(IngestOutcome* outcome) const override {
    const bool counted = has_record(path_.full());
    SQLitePODB db(path_.root, path_.full());
    DirPO entry(path_.root, path_.full(), *path_.dsid());
    ds_info_t delta{};
    const cr_status_t status = update(&entry, &db, &delta);
    if (status != CR_STATUS_OK) return status;
    // A directory that was kept counts as removed for the library; not for us.
    if (check_directory(path_) != CR_STATUS_NOT_FOUND) return CR_STATUS_NOT_EMPTY;
    if (counted) outcome->delta = delta;
    return CR_STATUS_OK;
  }

 private:
  static cr_status_t update(DirPO* entry, PODB* db, ds_info_t* delta) {
    refhost::RecordFields fields = refhost::get_fields(entry->record());
    fields.type = PO_TYPE_DIR;
    fields.mod_type = PO_MODTYPE_DELETE;
    if (refhost::set_fields(entry->record(), fields) != 0) return *__cr_errno_location();
    std::vector<PO*> unused;
    std::string action;
    return keep_errno_of(
        static_cast<cr_status_t>(entry->update(db, *delta, unused, unused, action)));
  }
};

bool is_directory_removal(const CatalogPath& path, bool directory_only) {
  if (directory_only || path.components.size() < 2) return true;
  std::unique_ptr<FilePO> file;
  return read_file(path, &file) == CR_STATUS_NOT_FOUND && check_directory(path) == CR_STATUS_OK;
}

}  // namespace

std::unique_ptr<Removal> removal_of_entry(const CatalogPath& path, bool directory_only) {
  if (is_directory_removal(path, directory_only)) return std::make_unique<DirectoryRemoval>(path);
  return std::make_unique<FileRemoval>(path);
}

}  // namespace cli
