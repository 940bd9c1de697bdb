// How the database comes into being, is opened and goes.
#include "uldb/sqlite_uldb.h"

#include <sqlite3.h>

#include "host/files.h"
#include "host/log.h"
#include "sqlitedb/durable_internal.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/open_internal.h"
#include "uldb/sqlite_uldb_internal.h"
#include "uldb/statement_internal.h"

namespace {

constexpr unsigned int kDirectoryMode = 0700;
constexpr const char* kSchema =
    "CREATE TABLE IF NOT EXISTS utable (    poid TEXT PRIMARY KEY,    udcids BLOB)";

struct FreeBySQLite {
  void operator()(char* text) const { sqlite3_free(text); }
};

}  // namespace

// A file that cannot be opened is in the log, and the first use tries again.
SQLiteULDB::SQLiteULDB(const std::string& dir, unsigned int options)
    : directory(dir),
      option(options),
      dbfile_path(dir + "/" + dbfilename()),
      kept(std::make_unique<KeptStatements>()) {
  if (!db_missing()) SQLiteULDB::db_open();
}

SQLiteULDB::~SQLiteULDB() { close_handle(); }

std::string SQLiteULDB::dbfilename() { return "ul.db"; }

std::string SQLiteULDB::get_dbfile_path() { return dbfile_path; }

std::string SQLiteULDB::get_db_dir() { return directory; }

bool SQLiteULDB::db_missing() { return wa_access(dbfile_path.c_str(), 0) == CR_STATUS_NOT_FOUND; }

cr_status_t SQLiteULDB::db_open() {
  return at_most_twice([this](bool& retry) { return db_open_imp(retry); });
}

cr_status_t SQLiteULDB::db_open_imp(bool& retry) {
  if (db != nullptr) return CR_STATUS_OK;
  const int rc = sqlitedb::open_hardened(dbfile_path, &db);
  if (rc == SQLITE_OK) {
    sqlite3_busy_timeout(db, sqlitedb::kBusyTimeoutMs);
    return CR_STATUS_OK;
  }
  const cr_status_t status = failure_status(rc);
  ErrorA(status, "%s: failed to open database %s (%s).", "db_open_imp", dbfile_path.c_str(),
         sqlite3_errstr(rc));
  close_handle();  // a failed opening leaves one all the same
  retry = db_handle_error(rc);
  return status;
}

cr_status_t SQLiteULDB::db_close() {
  close_handle();
  return CR_STATUS_OK;
}

// A statement that is still in use, of a walk whose callback closes or finds the file gone, keeps
// what it needs of the connection until it is finalized.
void SQLiteULDB::close_handle() {
  *kept = {};
  begun = false;
  sqlite3_close_v2(db);
  db = nullptr;
}

cr_status_t SQLiteULDB::db_checkopen() {
  if (db_missing()) {
    db_close();
    InfoA(CR_STATUS_NOT_FOUND, "ULDB %s doesn't exist.", dbfile_path.c_str());
    return CR_STATUS_NOT_FOUND;
  }
  if (db != nullptr) return CR_STATUS_OK;
  const cr_status_t status = db_open();
  if (status != CR_STATUS_OK) return status;
  if (!transaction_active) return CR_STATUS_OK;
  // The begin finds an open connection, so it does not come back here. Without it nothing may be
  // stored: the next operation opens again.
  const cr_status_t begun_again = begin_transaction();
  if (begun_again != CR_STATUS_OK) db_close();
  return begun_again;
}

cr_status_t SQLiteULDB::check_db_existence(bool) {
  const cr_status_t status = db_checkopen();
  return status == CR_STATUS_NOT_FOUND ? db_checkinit() : status;
}

cr_status_t SQLiteULDB::db_checkinit() {
  if (db != nullptr) return CR_STATUS_OK;
  cr_status_t status = wa_createtree(directory.c_str(), kDirectoryMode);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "Failed to create directory %s", directory.c_str());
    return status;
  }
  status = db_open();
  if (status == CR_STATUS_OK) status = db_exec(kSchema);
  if (status != CR_STATUS_OK) {
    db_close();
    return status;
  }
  InfoA(CR_STATUS_OK, "created UDCID List database %s", dbfile_path.c_str());
  return CR_STATUS_OK;
}

cr_status_t SQLiteULDB::drop_db() {
  InfoA(CR_STATUS_NONE, "%s: Drop UDCID List database: %s", "drop_db", dbfile_path.c_str());
  db_close();
  return wa_deletefile(dbfile_path.c_str());
}

cr_status_t SQLiteULDB::db_exec(const char* sql) {
  if (TraceOn()) __Trace("%s: sql = %s\n", "db_exec", sql);
  return at_most_twice([&](bool& retry) { return db_exec_imp(sql, retry); });
}

cr_status_t SQLiteULDB::db_exec_imp(const char* sql, bool& retry) {
  const int rc = run_sql("db_exec_imp", sql);
  if (rc == SQLITE_OK) return CR_STATUS_OK;
  retry = db_handle_error(rc);
  return failure_status(rc);
}

int SQLiteULDB::run_sql(const char* operation, const char* sql) {
  char* text = nullptr;
  int rc = sqlitedb::make_commits_durable(db, &text);
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql, nullptr, nullptr, &text);
  const std::unique_ptr<char, FreeBySQLite> error(text);
  if (rc == SQLITE_OK) return rc;
  ErrorA(failure_status(rc), "%s: %s: failed to execute \"%s\", (%s)", operation,
         dbfile_path.c_str(), sql, error ? error.get() : "null");
  return rc;
}
