// Single rows.
#include <cstdlib>
#include <limits>
#include <new>

#include "host/log.h"
#include "uldb/sqlite_uldb.h"
#include "uldb/sqlite_uldb_internal.h"
#include "uldb/statement_internal.h"
#include "uldb/udcid_list_internal.h"

namespace {

constexpr StatementTexts kRead = {"get_imp", "SELECT udcids FROM utable WHERE poid = ?",
                                  "prepare SQL", "step ", false};
constexpr StatementTexts kWrite = {"put_imp", "INSERT OR REPLACE INTO utable VALUES( ?, ? )",
                                   "prepare ", "step SQL ", true};
constexpr StatementTexts kDelete = {"del_imp", "DELETE FROM utable WHERE poid = ?", "prepare ",
                                    "step SQL ", true};
constexpr StatementTexts kOwner = owner_texts("get_imp");
using RecordPtr = std::unique_ptr<UDCIDRecord>;

// Runs `work` on a prepared statement. The error policy may drop the database, so the statement is
// let go before it is asked.
template <typename Work>
cr_status_t run(SQLiteULDB& database, Statement statement, bool& retry, Work work) {
  cr_status_t status = statement.prepare();
  if (status == CR_STATUS_OK) status = work(statement);
  const int judged = statement.release();
  retry = judged != SQLITE_OK && database.db_handle_error(judged);
  return status;
}

cr_status_t read_record(Statement& row, const char* poid, RecordPtr& found) {
  cr_status_t status = row.bind_poid(poid);
  if (status == CR_STATUS_OK) status = row.next_row();
  if (status != CR_STATUS_OK) return status;
  status = decode(row.blob(0), found);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: Deserialize UDCID List record failed for POID %s !", kRead.operation, poid);
  }
  return status;
}

// While the row is stood on, so that both statements see one state under one lock. Nothing is
// removed for a contradiction: by that index it would be another's row.
cr_status_t read_own_record(Statement& row, Statement owner, const char* poid, RecordPtr& found) {
  cr_status_t status = read_record(row, poid, found);
  if (status != CR_STATUS_OK) return status;
  status = owner.prepare_beside();
  if (status == CR_STATUS_OK) status = check_owner(owner, poid, nullptr);
  row.judge(owner.release());
  if (status == CR_STATUS_OK) return status;
  found.reset();
  const bool contradicts = status == CR_STATUS_BAD_DATA || status == CR_STATUS_NOT_FOUND;
  return contradicts ? CR_STATUS_CORRUPT : status;
}

// Bytes to store, from `malloc`.
struct FreeBytes {
  void operator()(unsigned char* bytes) const { std::free(bytes); }
};
struct Serialized {
  std::unique_ptr<unsigned char, FreeBytes> bytes;
  unsigned int size = 0;
};

cr_status_t serialize(const char* poid, UDCIDRecord& record, Serialized& out) {
  // Nothing larger can be bound.
  constexpr std::uint64_t kLargest = std::numeric_limits<int>::max();
  const std::uint64_t needed = udcid_binary_size(record.ndcid);
  if (needed <= kLargest) out.bytes.reset(static_cast<unsigned char*>(std::malloc(needed)));
  if (out.bytes == nullptr) {
    ErrorA(CR_STATUS_NO_MEMORY, "%s: malloc %u memory for serialize buffer failed!",
           kWrite.operation, printable_size(needed));
    return CR_STATUS_NO_MEMORY;
  }
  out.size = static_cast<unsigned int>(needed);
  const cr_status_t status = record.Serialize(out.bytes.get(), out.size);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: Serialize udcid list for POID %s failed.", kWrite.operation, poid);
  }
  return status;
}

}  // namespace

UDCIDRecord* SQLiteULDB::get(const char* poid) {
  RecordPtr found;
  const cr_status_t status =
      at_most_twice([&](bool& retry) { return get_imp(poid, found, retry); });
  *__cr_errno_location() = status;
  return found.release();
}

cr_status_t SQLiteULDB::get_imp(const char* poid, RecordPtr& found, bool& retry) {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (poid == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t status =
      run(*this, Statement(db, dbfile_path, kRead, &kept->read), retry, [&](Statement& row) {
        return read_own_record(row, Statement(db, dbfile_path, kOwner, &kept->owner), poid, found);
      });
  if (status == CR_STATUS_NOT_FOUND) log_absent(poid);
  if (status == CR_STATUS_BAD_DATA) remove_corrupt(poid);
  return status;
}

void SQLiteULDB::log_absent(const char* poid) {
  if (!db_missing()) {
    InfoA(CR_STATUS_NOT_FOUND, "DB[%s] don't have record with POID = %s", dbfile_path.c_str(),
          poid);
    return;
  }
  ErrorA(CR_STATUS_NOT_FOUND, "%s: ULDB %s doesn't exist, close handle of it.", kRead.operation,
         dbfile_path.c_str());
  db_close();
}

// The record is lost either way: whether the row could be deleted is in the log.
void SQLiteULDB::remove_corrupt(const char* poid) {
  ErrorA(CR_STATUS_BAD_DATA,
         "%s: UDCID List data of POID %s corrupt,remove this record from database %s.",
         kRead.operation, poid, dbfile_path.c_str());
  del(poid);
}

cr_status_t SQLiteULDB::put(const char* poid, UDCIDRecord* rec, const char*) {
  return at_most_twice([&](bool& retry) { return put_imp(poid, rec, retry); });
}

cr_status_t SQLiteULDB::put_imp(const char* poid, UDCIDRecord* rec, bool& retry) {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (poid == nullptr || rec == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t intact = check_transaction(kWrite.operation);
  if (intact != CR_STATUS_OK) return intact;
  Serialized record;
  const cr_status_t serialized = serialize(poid, *rec, record);
  if (serialized != CR_STATUS_OK) return serialized;
  Statement statement(db, dbfile_path, kWrite, &kept->write);
  return run(*this, std::move(statement), retry, [&](Statement& insertion) {
    cr_status_t status = insertion.bind_poid(poid);
    if (status == CR_STATUS_OK) status = insertion.bind_blob({record.bytes.get(), record.size});
    return status == CR_STATUS_OK ? insertion.finish() : status;
  });
}

cr_status_t SQLiteULDB::del(const char* poid) {
  return at_most_twice([&](bool& retry) { return del_imp(poid, retry); });
}

cr_status_t SQLiteULDB::del_imp(const char* poid, bool& retry) {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (poid == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t intact = check_transaction(kDelete.operation);
  if (intact != CR_STATUS_OK) return intact;
  Statement statement(db, dbfile_path, kDelete, &kept->deletion);
  return run(*this, std::move(statement), retry, [&](Statement& deletion) {
    const cr_status_t status = deletion.bind_poid(poid);
    return status == CR_STATUS_OK ? deletion.finish() : status;
  });
}
