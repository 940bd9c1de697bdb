#include "cli/row_batch.h"

#include <algorithm>

#include "base/sql_text.h"
#include "cli/attributes.h"
#include "cli/database.h"
#include "cli/entry.h"
#include "host/files.h"
#include "refhost/record.h"

namespace cli {
namespace {

constexpr unsigned long kNamesAtOnce = 512;

// Entries that an update displaced. Their data is released by whoever keeps it.
struct Displaced {
  Displaced() = default;
  Displaced(const Displaced&) = delete;
  Displaced& operator=(const Displaced&) = delete;
  ~Displaced() {
    for (PO* entry : entries) const std::unique_ptr<PO> owned(entry);
  }
  std::vector<PO*> entries;
};

void set_fields(FilePO* entry, const refhost::RecordFields& fields) {
  if (refhost::set_fields(entry->record(), fields) == 0) return;
  throw EntryError{fields.leaf, *__cr_errno_location()};
}

// The access time stays 0: that field is the retention lock. A file with content has its POID as
// content fingerprint, too.
void describe(FilePO* entry, const SourceFile& file) {
  refhost::RecordFields fields = refhost::get_fields(entry->record());
  set_attributes(&fields, file.attributes);
  fields.size = static_cast<std::uint64_t>(file.attributes.st_size);
  fields.poid = file.poid;
  fields.content_fp = file.poid;
  set_fields(entry, fields);
}

void mend_version(SQLitePODB& db, IngestOutcome* outcome) {
  db.load_podb_version();
  if (db.get_podb_version() != 0) return;
  const cr_status_t status = db.set_property("db_version", "1");
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database has no version"};
  ++outcome->counts.mended;
  outcome->problems.push_back(
      {db.get_dbfile_path(), CR_STATUS_OK, "mended: the database had no version"});
}

}  // namespace

void prepare_database(SQLitePODB& db, IngestOutcome* outcome) {
  DatabaseState state{};
  cr_status_t status = examine_database(db, &state);
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be opened"};
  if (state == DatabaseState::present) mend_version(db, outcome);
  if (state != DatabaseState::leftover) return;
  // A journal beside it can stay: SQLite discards the journal of a database without content.
  status = wa_deletefile(db.get_dbfile_path().c_str());
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its empty database cannot be removed"};
}

RowBatch::~RowBatch() {
  if (!begun_) return;
  // What cannot be rolled back is undone by closing.
  if (db_.rollback_transaction() != CR_STATUS_OK) db_.close_db(0);
}

std::string RowBatch::path_of(const std::string& name) const { return db_.get_dir() + "/" + name; }

RowBatch::Stored RowBatch::load(const std::string& name, FilePO* stored) {
  const cr_status_t status = db_.get(name, stored);
  if (status == CR_STATUS_OK) return Stored::readable;
  if (status == CR_STATUS_NONE || status == CR_STATUS_BAD_RECORD) return Stored::damaged;
  // The cell tells "not there" from "could not look".
  const cr_status_t reason = *__cr_errno_location();
  const bool looked = reason == CR_STATUS_OK || reason == CR_STATUS_NOT_FOUND;
  if (status == CR_STATUS_NOT_FOUND && looked) return Stored::absent;
  throw DirectoryError{looked ? status : reason, "its database cannot be read"};
}

// Without contents, size and modification time decide.
bool RowBatch::is_same(const FilePO& stored, const FilePO& incoming) const {
  if (job_.with_content) return POEqualsPO(stored.record(), incoming.record(), 0) != 0;
  const refhost::RecordFields old_fields = refhost::get_fields(stored.record());
  const refhost::RecordFields new_fields = refhost::get_fields(incoming.record());
  return old_fields.type == new_fields.type && old_fields.size == new_fields.size &&
         old_fields.mtime == new_fields.mtime;
}

void RowBatch::refuse_protected(const std::string& name) {
  outcome_.not_done({path_of(name), CR_STATUS_IMMUTABLE, "left alone: it is protected"});
}

void RowBatch::store(const std::string& name, const SourceFile& file) {
  FilePO incoming(job_.root, path_of(name), job_.dsid);
  describe(&incoming, file);
  const std::uint64_t size = incoming.get_size();
  FilePO stored(job_.dsid);
  const Stored found = load(name, &stored);
  const bool same = found == Stored::readable && is_same(stored, incoming);
  if (found == Stored::readable && !same && protected_entry(stored.record(), job_.clock)) {
    return refuse_protected(name);
  }
  if (!same) update(name, &incoming);
  ++(same                      ? outcome_.counts.unchanged
     : found == Stored::absent ? outcome_.counts.added
                               : outcome_.counts.replaced);
  outcome_.counts.bytes += size;
}

void RowBatch::remove_others(const std::vector<std::string>& kept) {
  std::string last;
  for (;;) {
    std::vector<std::string> names;
    const std::string after = "basename > '" + base::sql_escaped(last) + "'";
    const cr_status_t status = db_.select_basenames(&names, after, ORDER_ASCENDING, kNamesAtOnce);
    if (status == CR_STATUS_NOT_FOUND) return;  // no database
    if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be read"};
    for (const std::string& name : names) {
      if (!std::binary_search(kept.begin(), kept.end(), name)) remove(name);
    }
    if (names.size() < kNamesAtOnce) return;
    last = names.back();
  }
}

void RowBatch::remove(const std::string& name) {
  FilePO stored(job_.dsid);
  const Stored found = load(name, &stored);
  if (found == Stored::readable && protected_entry(stored.record(), job_.clock))
    return refuse_protected(name);
  FilePO gone(job_.root, path_of(name), job_.dsid);
  refhost::RecordFields fields = refhost::get_fields(gone.record());
  fields.mod_type = PO_MODTYPE_DELETE;
  set_fields(&gone, fields);
  update(name, &gone);
  ++outcome_.counts.removed;
}

void RowBatch::update(const std::string& name, FilePO* entry) {
  begin();
  Displaced displaced;
  std::vector<PO*> with_containers;
  std::string action = "action_imgchk";
  const auto status = static_cast<cr_status_t>(
      entry->update(&db_, outcome_.delta, displaced.entries, with_containers, action));
  if (status == CR_STATUS_IO_ERROR || status == CR_STATUS_CORRUPT || status == CR_STATUS_BUSY) {
    throw DirectoryError{status, "its database cannot be written"};
  }
  if (status != CR_STATUS_OK) throw EntryError{name, status};
}

void RowBatch::begin() {
  if (begun_) return;
  const cr_status_t status = db_.begin_transaction();
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be written"};
  begun_ = true;
}

void RowBatch::commit() {
  if (!begun_) return;
  const cr_status_t status = db_.commit_transaction();
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its rows could not be committed"};
  begun_ = false;
}

}  // namespace cli
