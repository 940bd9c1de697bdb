// Transactions.
#include <sqlite3.h>

#include <cstring>

#include "sqlitedb/durable_internal.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

int make_commits_durable(sqlite3* db, char** error) {
  if (db == nullptr || sqlite3_get_autocommit(db) == 0) return SQLITE_OK;
  return sqlite3_exec(db, "PRAGMA synchronous=EXTRA", nullptr, nullptr, error);
}

bool is_durable_setting(const char* pragma, const char* value) {
  return value != nullptr && std::strcmp(pragma, "synchronous") == 0 &&
         std::strcmp(value, "EXTRA") == 0;
}

// What makes it fail, as a lock, fails the statement that was to follow, and the next one tries
// again.
int sqlite3_wrapper::prepare_to_commit(char** error) {
  if (durable || in_transaction()) return SQLITE_OK;
  const int rc = make_commits_durable(db, error);
  durable = rc == SQLITE_OK;
  return rc;
}

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
