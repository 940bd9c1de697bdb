// The rows handed to callbacks, and their number.
#include <sqlite3.h>

#include <cstdlib>
#include <new>
#include <optional>

#include "host/log.h"
#include "uldb/sqlite_uldb.h"
#include "uldb/statement_internal.h"

namespace {

constexpr StatementTexts kReadAll = {"get_all_imp", "SELECT * FROM utable ORDER BY poid ASC ",
                                     "prepare SQL", "step ", false};

constexpr StatementTexts kOwners =
    owner_texts("get_all_imp",
                "SELECT own.poid FROM utable AS led LEFT JOIN utable AS own "
                "ON own.rowid = led.rowid ORDER BY led.poid");

// All rows in the order of the index, each asked whose it is.
class Walk {
 public:
  Walk(sqlite3* connection, const std::string& path)
      : db_(connection), rows_(connection, path, kReadAll), owners_(connection, path, kOwners) {}

  cr_status_t prepare();
  // 0 for a row, CR_STATUS_NOT_FOUND when there is no further one.
  cr_status_t next();
  // Makes the record of the row, or tells why it is left out.
  cr_status_t read(std::unique_ptr<UDCIDRecord>& record) const;
  const char* poid() const { return rows_.text(0); }

 private:
  cr_status_t remember();
  cr_status_t step();
  bool was_replaced() const;
  cr_status_t decode_list(std::unique_ptr<UDCIDRecord>& record) const;
  cr_status_t check_alone() const;

  sqlite3* const db_;
  Statement rows_;
  Statement owners_;
  std::optional<std::string> before_;  // the POID of the row before
  int changes_ = 0;                    // by the connection, until that row was taken
};

cr_status_t Walk::prepare() {
  const cr_status_t status = rows_.prepare();
  return status == CR_STATUS_OK ? owners_.prepare_beside() : status;
}

cr_status_t Walk::next() {
  cr_status_t status = remember();
  do {
    if (status == CR_STATUS_OK) status = step();
  } while (status == CR_STATUS_OK && was_replaced());
  changes_ = sqlite3_total_changes(db_);
  return status;
}

// Both statements stand on one entry of the index, whatever a callback stores or deletes.
cr_status_t Walk::step() {
  cr_status_t status = rows_.next_row();
  if (status != CR_STATUS_OK) return status;
  status = owners_.next_row();
  return status == CR_STATUS_NOT_FOUND ? CR_STATUS_CORRUPT : status;
}

// A callback that stores a new list for its POID puts another row behind the one it was given. It
// would meet its own for ever.
bool Walk::was_replaced() const {
  const char* found = poid();
  return sqlite3_total_changes(db_) != changes_ && found != nullptr && before_ == found;
}

cr_status_t Walk::remember() {
  try {
    const char* left = poid();
    before_ = left != nullptr ? std::optional<std::string>(left) : std::nullopt;
    return CR_STATUS_OK;
  } catch (const std::bad_alloc&) {
    return CR_STATUS_NO_MEMORY;
  }
}

cr_status_t Walk::read(std::unique_ptr<UDCIDRecord>& record) const {
  cr_status_t status = decode_list(record);
  if (status == CR_STATUS_OK) status = check_owner(owners_, poid());
  return status == CR_STATUS_OK ? check_alone() : status;
}

// What is not the text that a POID is, whole, cannot be asked for by it.
cr_status_t Walk::decode_list(std::unique_ptr<UDCIDRecord>& record) const {
  const char* poid = this->poid();
  const Blob blob = rows_.blob(1);
  if (poid == nullptr || blob.bytes == nullptr) {  // null for an empty one, too
    ErrorA(CR_STATUS_BAD_DATA, "UDCID list data of POID %s is corrupt.", poid ? poid : "(null)");
    return CR_STATUS_BAD_DATA;
  }
  const cr_status_t status = decode(blob, record);
  if (status == CR_STATUS_OK) return status;
  ErrorA(status, "%s: Deserialize UDCID list record failed for POID %s !", kReadAll.operation,
         poid);
  if (status == CR_STATUS_BAD_DATA) {
    ErrorA(status, "%s: UDCID list data of POID %s is corrupt.", kReadAll.operation, poid);
  }
  return status;
}

// In a damaged database two rows may bear one POID. The first is the one that `get` finds.
cr_status_t Walk::check_alone() const {
  if (before_ != poid()) return CR_STATUS_OK;
  ErrorA(CR_STATUS_BAD_DATA, "UDCID list data of POID %s is there twice.", poid());
  return CR_STATUS_BAD_DATA;
}

// Of the exception that is being handled.
cr_status_t caught_status() {
  try {
    throw;
  } catch (const Cr_ErrnoException& caught) {
    return caught.status() != CR_STATUS_OK ? caught.status() : CR_STATUS_FAILED;
  } catch (const std::bad_alloc&) {
    return CR_STATUS_NO_MEMORY;
  } catch (...) {
    return CR_STATUS_FAILED;
  }
}

cr_status_t call(SQLiteULDB::Callback cb, const char* poid, UDCIDRecord* record) {
  try {
    return cb(poid, record);
  } catch (...) {
    const cr_status_t status = caught_status();
    ErrorA(status, "The callback threw an exception for POID %s", poid);
    return status;
  }
}

int count_callback(void* out, int, char** values, char**) {
  *static_cast<unsigned long*>(out) = values[0] ? std::strtoul(values[0], nullptr, 10) : 0;
  return 0;
}

}  // namespace

// A walk is not tried again, nor is the database judged: what the callback took stays taken.
cr_status_t SQLiteULDB::get_all(Callback cb) {
  if (cb == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  Walk walk(db, dbfile_path);
  cr_status_t next = walk.prepare();
  // A good row after a damaged one clears the status, intended.
  cr_status_t status = next;
  while (next == CR_STATUS_OK && (next = walk.next()) == CR_STATUS_OK) {
    std::unique_ptr<UDCIDRecord> record;
    status = walk.read(record);
    if (status != CR_STATUS_OK) continue;
    status = call(cb, walk.poid(), record.get());
    if (status != CR_STATUS_OK) return status;
  }
  return next == CR_STATUS_NOT_FOUND ? status : next;
}

cr_status_t SQLiteULDB::get_one(const char* poid, Callback cb) {
  if (cb == nullptr) return CR_STATUS_BAD_ARG;
  const std::unique_ptr<UDCIDRecord> record(get(poid));
  return record == nullptr ? CR_STATUS_NOT_FOUND : call(cb, poid, record.get());
}

cr_status_t SQLiteULDB::count(unsigned long* n) {
  if (n == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t opened = check_db_existence(false);
  if (opened != CR_STATUS_OK) return opened;
  constexpr const char* kSql = "SELECT COUNT(*) FROM utable;";
  if (sqlite3_exec(db, kSql, count_callback, n, nullptr) == SQLITE_OK) return CR_STATUS_OK;
  ErrorA(CR_STATUS_FAILED, "%s: faile to exec (%s) ", "count", kSql);
  return CR_STATUS_FAILED;
}

std::pair<std::uint64_t, std::uint64_t> SQLiteULDB::get_ops() { return {}; }

void SQLiteULDB::clear_ops() {}
