// Transactions.
#include <sqlite3.h>

#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

cr_status_t sqlite3_wrapper::run_transaction_statement(const char* operation, const char* sql) {
  if (db == nullptr) return log_not_opened(dbfile);
  return catching_db_exception(
      operation, [&] { return retry_while_busy([&] { return exec(sql, nullptr); }); });
}

cr_status_t sqlite3_wrapper::begin_transaction() {
  return run_transaction_statement("begin_transaction", "BEGIN IMMEDIATE TRANSACTION;");
}

cr_status_t sqlite3_wrapper::commit_transaction() {
  return run_transaction_statement("commit_transaction", "COMMIT TRANSACTION;");
}

cr_status_t sqlite3_wrapper::rollback_transaction() {
  return run_transaction_statement("rollback_transaction", "ROLLBACK TRANSACTION;");
}

bool sqlite3_wrapper::in_transaction() const {
  return db != nullptr && sqlite3_get_autocommit(db) == 0;
}

}  // namespace sqlitedb
