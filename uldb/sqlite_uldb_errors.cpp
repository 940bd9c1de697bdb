// What follows a failure of SQLite.
#include <sqlite3.h>

#include "host/log.h"
#include "uldb/sqlite_uldb.h"

namespace {

bool is_damage(int rc) {
  return rc == SQLITE_CORRUPT || rc == SQLITE_FORMAT || rc == SQLITE_NOTADB;
}

}  // namespace

bool SQLiteULDB::db_corrupted(int rc) {
  ErrorA(CR_STATUS_NONE, "%s: sqlite error code is %d (%s).", "db_corrupted", rc,
         sqlite3_errstr(rc));
  if (is_damage(rc)) {
    ErrorA(CR_STATUS_NONE, "%s: UDCID List database %s is corrupted. ", "db_corrupted",
           dbfile_path.c_str());
    return true;
  }
  // A database that was deleted under its connection is read-only to SQLite.
  if (rc == SQLITE_READONLY && db_missing()) {
    ErrorA(CR_STATUS_NONE, "%s: UDCID List database %s is missing.", "db_corrupted",
           dbfile_path.c_str());
    return true;
  }
  return false;
}

bool SQLiteULDB::db_handle_error(int rc) {
  // Whether the dropping succeeded shows when the file is looked for.
  if (db_corrupted(rc)) drop_db();
  if (db_missing()) {
    db_close();
  } else if (db_integrity_OK()) {
    return false;  // the failure was the statement's own
  }
  return recovered();
}

bool SQLiteULDB::recovered() {
  if (recovering) return false;
  recovering = true;
  const cr_status_t status = recover();
  const cr_status_t opened = status == CR_STATUS_OK ? db_checkopen() : status;
  recovering = false;
  if (opened == CR_STATUS_OK) return true;
  if (status == CR_STATUS_OK) {
    ErrorA(opened, "Failed to open database %s", dbfile_path.c_str());
  } else {
    ErrorA(status, "Failed to recover database %s", dbfile_path.c_str());
  }
  return false;
}

bool SQLiteULDB::db_integrity_OK() {
  return db != nullptr && run_sql("db_integrity_OK", "PRAGMA integrity_check;") == SQLITE_OK;
}

cr_status_t SQLiteULDB::recover() { return CR_STATUS_UNSUPPORTED; }
