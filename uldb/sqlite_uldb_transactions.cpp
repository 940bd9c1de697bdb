// Transactions.
#include <sqlite3.h>

#include "host/log.h"
#include "sqlitedb/failure_internal.h"
#include "uldb/sqlite_uldb.h"

cr_status_t SQLiteULDB::begin_transaction() {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  const cr_status_t status = db_exec("BEGIN IMMEDIATE TRANSACTION");
  if (status == CR_STATUS_OK) transaction_active = begun = true;
  log_transaction("begin", status);
  return status;
}

cr_status_t SQLiteULDB::commit_transaction() {
  const cr_status_t opened = check_db_existence(true);
  return opened != CR_STATUS_OK ? opened : end_transaction("commit", "COMMIT TRANSACTION");
}

cr_status_t SQLiteULDB::rollback_transaction() {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (transaction_undone()) {  // which is all that was wanted
    transaction_active = begun = false;
    log_transaction("rollback", CR_STATUS_OK);
    return CR_STATUS_OK;
  }
  if (transaction_active) return end_transaction("rollback", "ROLLBACK TRANSACTION");
  InfoA(CR_STATUS_OK, "%s: DB[%s] transaction is not active, skipped rollback operation.",
        "rollback_transaction", dbfile_path.c_str());
  return CR_STATUS_OK;
}

cr_status_t SQLiteULDB::end_transaction(const char* verb, const char* sql) {
  const cr_status_t status = sqlitedb::retry_while_busy([&] { return db_exec(sql); });
  if (status == CR_STATUS_OK) transaction_active = begun = false;
  log_transaction(verb, status);
  return status;
}

void SQLiteULDB::log_transaction(const char* verb, cr_status_t status) {
  InfoA(status, "%s_transaction: DB[%s] %s transaction (%s).", verb, dbfile_path.c_str(), verb,
        CRStatusToStringA(status));
}

// By SQLite, as after an I/O error.
bool SQLiteULDB::transaction_undone() const { return begun && sqlite3_get_autocommit(db) != 0; }

// What comes after a part that is lost must not be stored by itself.
cr_status_t SQLiteULDB::check_transaction(const char* operation) const {
  if (!transaction_undone()) return CR_STATUS_OK;
  ErrorA(CR_STATUS_FAILED, "%s: the transaction of %s was lost, begin it again", operation,
         dbfile_path.c_str());
  return CR_STATUS_FAILED;
}

bool SQLiteULDB::is_transaction_active() const { return transaction_active; }
