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

constexpr StatementTexts kOwner = owner_texts("get_all_imp");

// One row of the walk. What is not the text that a POID is, whole, cannot be asked for by it.
cr_status_t read_row(const Statement& row, std::unique_ptr<UDCIDRecord>& record) {
  const char* poid = row.text(0);
  const Blob blob = row.blob(1);
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

// 0 and the row's status, or why that cannot be told. A name that the index does not know, though
// the walk follows it, is not the one under which the list was stored.
cr_status_t check_walked(Statement& owner, const Statement& row, cr_status_t& status) {
  const Blob list = row.blob(1);
  const cr_status_t owned = check_owner(owner, row.text(0), &list);
  const bool contradicts = owned == CR_STATUS_BAD_DATA || owned == CR_STATUS_NOT_FOUND;
  status = contradicts ? CR_STATUS_BAD_DATA : CR_STATUS_OK;
  return contradicts ? CR_STATUS_OK : owned;
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

template <typename Callback>
cr_status_t call(Callback cb, const char* poid, UDCIDRecord* record) {
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
  Statement rows(db, dbfile_path, kReadAll);
  Statement owner(db, dbfile_path, kOwner);
  cr_status_t next = rows.prepare();
  if (next == CR_STATUS_OK) next = owner.prepare_beside();
  if (next != CR_STATUS_OK) return next;
  // A good row after a damaged one clears the status, intended.
  cr_status_t status = CR_STATUS_OK;
  // A callback that stores a list for its own POID puts another row behind the one that it was
  // given: it would meet its own for ever.
  std::optional<std::string> last;
  const auto hand_on = [&](const char* poid, UDCIDRecord* record) {
    last = poid;  // here, because it may throw
    return cb(poid, record);
  };
  while ((next = rows.next_row()) == CR_STATUS_OK) {
    std::unique_ptr<UDCIDRecord> record;
    status = read_row(rows, record);
    if (status == CR_STATUS_OK) next = check_walked(owner, rows, status);
    if (next != CR_STATUS_OK) return next;
    if (status != CR_STATUS_OK || last == rows.text(0)) continue;
    status = call(hand_on, rows.text(0), record.get());
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
