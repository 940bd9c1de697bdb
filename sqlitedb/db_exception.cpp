#include <sqlite3.h>

#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

db_exception::db_exception(int code, cr_status_t given)
    : errcode_(code), message(sqlite3_errstr(code)), status(given) {}

db_exception::db_exception(int code) : db_exception(code, dberr_to_crstatus(code)) {}

db_exception::db_exception(int code, const char* text)
    : errcode_(code),
      message(text != nullptr ? text : sqlite3_errstr(code)),
      status(dberr_to_crstatus(code)) {}

db_exception::~db_exception() = default;

const char* db_exception::what() const { return message.c_str(); }

int db_exception::errcode() const { return errcode_; }

cr_status_t db_exception::cr_status() const { return status; }

cr_status_t db_exception::dberr_to_crstatus(int code) {
  constexpr int kPrimary = 0xFF;
  switch (code & kPrimary) {
    case SQLITE_OK:
    case SQLITE_ROW:
    case SQLITE_DONE:
      return CR_STATUS_OK;
    case SQLITE_BUSY:
      return CR_STATUS_BUSY;
    case SQLITE_IOERR:
      return CR_STATUS_IO_ERROR;
    case SQLITE_CORRUPT:
    case SQLITE_NOTADB:
      return CR_STATUS_CORRUPT;
    case SQLITE_READONLY:
      // A file that was moved or deleted under its connection no longer holds what is written.
      return code == SQLITE_READONLY_DBMOVED ? CR_STATUS_CORRUPT : CR_STATUS_FAILED;
    default:
      return CR_STATUS_FAILED;
  }
}

}  // namespace sqlitedb
