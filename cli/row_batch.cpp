#include "cli/row_batch.h"

#include <algorithm>
#include <memory>

#include "base/sql_text.h"
#include "cli/attributes.h"
#include "cli/batch_errors.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/row_pager.h"
#include "refhost/record.h"
#include "uldb/sqlite_uldb.h"

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
void describe(FilePO* entry, const SourceFile& file, bool with_content) {
  refhost::RecordFields fields = refhost::get_fields(entry->record());
  set_attributes(&fields, file.attributes);
  fields.size = static_cast<std::uint64_t>(file.attributes.st_size);
  fields.poid = with_content ? file.content.poid : "";
  fields.content_fp = fields.poid;
  set_fields(entry, fields);
}

// Texts of this size fit into the store's longest statement.
constexpr std::size_t kMostRowText = 1900;

// Whether an update failed because of its entry: every other entry can be stored all the same. The
// entry has lost its location by then, as its row would have.
bool is_of_entry(const std::string& name, const FilePO& entry, cr_status_t status) {
  if (status == CR_STATUS_IMMUTABLE || status == CR_STATUS_BAD_ARG) return true;
  std::string content;
  if (status != CR_STATUS_FAILED || entry.to_string(content) != 0) return false;
  return base::sql_escaped(name + content).size() +
             refhost::get_fields(entry.record()).poid.size() >
         kMostRowText;
}

}  // namespace

RowBatch::~RowBatch() {
  if (!begun_) return;
  // What cannot be rolled back is undone by closing.
  if (db_.rollback_transaction() != CR_STATUS_OK) db_.close_db(0);
}

std::string RowBatch::path_of(const std::string& name) const { return db_.get_dir() + "/" + name; }

// An update works on the leaf of the entry's path. Of a row named "a/b" by damage that would be
// another row's name.
FilePO RowBatch::entry_of(const std::string& name) const {
  try {
    FilePO entry(job_.root, path_of(name), job_.dsid);
    if (POGetBasename(entry.record()) == name) return entry;
  } catch (const Cr_ErrnoException& error) {
    throw EntryError{name, error.status()};
  }
  throw EntryError{name, CR_STATUS_BAD_ARG};
}

// Of a row that was sound when the batch began.
bool RowBatch::recall(const std::string& name, FilePO* stored) const {
  const auto known = rows_.records.find(name);
  return known != rows_.records.end() && stored->set(job_.root, known->second, path_of(name)) == 0;
}

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

void RowBatch::refuse_damaged(const std::string& name) {
  outcome_.not_done({path_of(name), CR_STATUS_BAD_DATA,
                     "not removed: its row is damaged, and may be protected: see pocatalog verify "
                     "and rm --damaged-row"});
}

// The file itself is the only cure of a damaged row.
void RowBatch::replace_damaged(const std::string& name) {
  displaced_damage_ = true;
  outcome_.recount = true;
  outcome_.mended(path_of(name), "mended: its row was damaged, and is replaced");
}

// What was read when the batch began may tell that nothing is to be done; what is done depends on
// the row as it is once nobody else can write.
RowBatch::Stored RowBatch::compare(const std::string& name, const FilePO& incoming, FilePO* stored,
                                   bool* same) {
  const bool recalled = recall(name, stored);
  const bool is_current = begun_ && !recalled;
  Stored found = recalled ? Stored::readable : load(name, stored);
  const auto agrees = [&] {
    return found == Stored::readable && rows_.damaged.count(name) == 0 &&
           is_same(*stored, incoming);
  };
  *same = agrees();
  if (*same || is_current) return found;
  begin();
  found = load(name, stored);
  *same = agrees();
  return found;
}

void RowBatch::store(const std::string& name, const SourceFile& file) {
  FilePO incoming = entry_of(name);
  describe(&incoming, file, job_.with_content);
  const std::uint64_t size = incoming.get_size();
  FilePO stored(job_.dsid);
  bool same = false;
  const Stored found = compare(name, incoming, &stored, &same);
  if (found == Stored::readable && !same && protected_entry(stored.record(), job_.clock)) {
    return refuse_protected(name);
  }
  if (found == Stored::damaged || rows_.damaged.count(name) != 0) replace_damaged(name);
  if (same) {
    close_gap(stored, file.content);
  } else {
    update(name, &incoming, file.content);
  }
  ++(same                      ? outcome_.counts.unchanged
     : found == Stored::absent ? outcome_.counts.added
                               : outcome_.counts.replaced);
  outcome_.counts.bytes += size;
}

bool RowBatch::lacks_list(const std::string& name) {
  if (gaps_.missing.empty()) return false;
  FilePO stored(job_.dsid);
  return (recall(name, &stored) || load(name, &stored) == Stored::readable) &&
         gaps_.missing.count(POGetHashRef(stored.record())) != 0;
}

// The source may have changed since the row was stored: only the content itself has that list.
void RowBatch::close_gap(const FilePO& stored, const Content& content) {
  if (gaps_.missing.count(content.poid) == 0) return;
  if (!stored.udcid_qualified() || POGetHashRef(stored.record()) != content.poid) return;
  begin();
  lists_.put(content);
  gaps_.missing.erase(content.poid);
  ++lists_mended_;
}

void RowBatch::remove_others(const std::vector<std::string>& kept) {
  for (const std::string& name : rows_.nameless) refuse_damaged(name);
  std::string last;
  for (;;) {
    std::vector<std::string> names;
    const std::string after =
        std::string(kNamedRows) + " AND basename > '" + base::sql_escaped(last) + "'";
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
  FilePO gone = entry_of(name);
  FilePO stored(job_.dsid);
  begin();  // nobody else can write from here on
  const Stored found = load(name, &stored);
  if (found == Stored::absent) return;
  if (found == Stored::readable && protected_entry(stored.record(), job_.clock)) {
    return refuse_protected(name);
  }
  if (found == Stored::damaged) {
    return refuse_damaged(name);
  }
  refhost::RecordFields fields = refhost::get_fields(gone.record());
  fields.mod_type = PO_MODTYPE_DELETE;
  set_fields(&gone, fields);
  update(name, &gone, {});
  ++outcome_.counts.removed;
}

void RowBatch::update(const std::string& name, FilePO* entry, const Content& content) {
  rows_.records.erase(name);
  Displaced displaced;
  std::vector<PO*> with_containers;
  std::string action = "action_imgchk";
  const auto status = static_cast<cr_status_t>(
      entry->update(&db_, outcome_.delta, displaced.entries, with_containers, action));
  if (status != CR_STATUS_OK && is_of_entry(name, *entry, status)) throw EntryError{name, status};
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be written"};
  for (const PO* old : displaced.entries) displaced_.insert(POGetHashRef(old->record()));
  if (with_containers.empty()) return;
  lists_.put(content);
  gaps_.missing.erase(content.poid);
}

void RowBatch::begin() {
  if (begun_) return;
  const cr_status_t status = db_.begin_transaction();
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be written"};
  begun_ = true;
}

// What the rows say now decides which contents are unused: one that was displaced may be another
// file's, too.
void RowBatch::settle_lists() {
  std::set<std::string> unused = gaps_.unused;
  unused.merge(displaced_);
  unused.erase("");  // of files without content
  POQueue users;
  if (!unused.empty() || !gaps_.missing.empty()) {
    unsigned long rows = 0;
    const cr_status_t status = db_.double_check(&gaps_.missing, &users, &unused, &rows);
    if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be read"};
  }
  for (const std::string& poid : unused) {
    begin();
    lists_.remove(poid);
    lists_mended_ += gaps_.unused.count(poid);
  }
  tell_gaps(users);
}

void RowBatch::tell_gaps(const POQueue& users) {
  const std::string file = path_of(SQLiteULDB::dbfilename());
  std::set<std::string> missing;
  for (const auto& user : users) {
    if (user->udcid_qualified()) missing.insert(POGetHashRef(user->record()));
  }
  if (lists_mended_ != 0) {
    outcome_.counts.mended += lists_mended_;
    outcome_.problems.push_back(
        {file, CR_STATUS_OK, "mended: " + counted(lists_mended_, "list") + " of containers"});
  }
  if (missing.empty()) return;
  outcome_.not_done({file, CR_STATUS_NOT_FOUND,
                     "no list of containers, and no file to make it from, for " +
                         counted(missing.size(), "content")});
}

void RowBatch::commit() {
  settle_lists();
  if (!begun_) return;
  lists_.commit();
  const cr_status_t status = db_.commit_transaction();
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its rows could not be committed"};
  begun_ = false;
}

}  // namespace cli
