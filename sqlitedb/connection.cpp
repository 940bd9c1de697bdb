// Opening, closing and dropping.
#include <sqlite3.h>
#include <sys/stat.h>

#include <new>

#include "host/files.h"
#include "host/log.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/open_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

namespace {

constexpr unsigned int kDirectoryMode = 0700;

// A file that could not be looked for is not missing: taken for it, it would be created anew.
bool is_missing(const std::string& file) {
  return wa_access(file.c_str(), 0) == CR_STATUS_NOT_FOUND;
}

// 0 for a file that is not there or can be examined. init_db, which deletes its file when it fails,
// must not touch any other.
cr_status_t check_examinable(const std::string& file) {
  struct stat info {};
  return is_missing(file) ? CR_STATUS_OK : wa_stat(file.c_str(), &info);
}

bool has_content(const std::string& file) {
  struct stat info {};
  return wa_stat(file.c_str(), &info) == CR_STATUS_OK && info.st_size > 0;
}

cr_status_t create_directory_of(const std::string& file) {
  const std::string::size_type slash = file.rfind('/');
  if (slash == std::string::npos || slash == 0) return CR_STATUS_OK;
  const std::string directory = file.substr(0, slash);
  const cr_status_t created = wa_createtree(directory.c_str(), kDirectoryMode);
  if (created == CR_STATUS_OK) return CR_STATUS_OK;
  const cr_status_t mapped = _crMapError("init_db", "sqlite_wrapper", __LINE__);
  const cr_status_t status = mapped != CR_STATUS_OK ? mapped : created;
  ErrorA(status, "Could not create directory %s", directory.c_str());
  return status;
}

// SQLite may make a handle even when it fails; the caller closes it.
int connect(const std::string& file, int longest_value, sqlite3** db) {
  InfoA(CR_STATUS_OK, "Open SQLite database %s", file.c_str());
  const int rc = open_hardened(file, db);
  if (rc != SQLITE_OK) return rc;
  sqlite3_busy_timeout(*db, kBusyTimeoutMs);
  sqlite3_limit(*db, SQLITE_LIMIT_LENGTH, longest_value);
  return rc;
}

cr_status_t use_extended_codes(const std::string& file, sqlite3* db) {
  const cr_status_t status = db_exception::dberr_to_crstatus(sqlite3_extended_result_codes(db, 1));
  if (status != CR_STATUS_OK) {
    ErrorA(status, "Failed to set extended result code for %s", file.c_str());
  }
  return status;
}

// A connection that is busy to the end counts as closed: it is abandoned, so that nobody blocks.
cr_status_t close_handle(const std::string& file, sqlite3* db, unsigned long retries) {
  for (unsigned long attempt = 1;; ++attempt) {
    const int rc = sqlite3_close(db);
    if (rc != SQLITE_BUSY) return db_exception::dberr_to_crstatus(rc);
    if (TraceOn()) {
      __Trace("Database %s is busy, sleep 1 second before retry", file.c_str());
    }
    ZelSleep(1);
    if (attempt > retries) return CR_STATUS_OK;
  }
}

}  // namespace

sqlite3_wrapper::sqlite3_wrapper(const std::string& file) : dbfile(file) {}

sqlite3_wrapper::sqlite3_wrapper(const std::string& file, int longest)
    : dbfile(file), longest_value(longest) {}

// Nobody is left to take a status; close_db has logged what there was to say.
sqlite3_wrapper::~sqlite3_wrapper() {
  try {
    close_db(kCloseRetries);
  } catch (...) {  // of a host function that ran out of memory: the connection is abandoned
  }
}

cr_status_t sqlite3_wrapper::on_db_createtable() { return CR_STATUS_OK; }

cr_status_t sqlite3_wrapper::init_db() {
  if (db != nullptr) return CR_STATUS_OK;
  if (has_content(dbfile)) return CR_STATUS_EXISTS;
  cr_status_t status = create_directory_of(dbfile);
  if (status == CR_STATUS_OK) status = check_examinable(dbfile);
  if (status != CR_STATUS_OK) return status;

  const int rc = connect(dbfile, longest_value, &db);
  status = rc == SQLITE_OK ? use_extended_codes(dbfile, db) : on_db_error(rc);
  // The file goes, and the first failure is reported, however the closing ends: an empty one would
  // be refused for ever after.
  const auto discard = [this](cr_status_t failure) {
    close_db(kCloseRetries);
    if (wa_deletefile(dbfile.c_str()) != CR_STATUS_OK) {
      WarningA(failure, "Could not delete bad db file %s", dbfile.c_str());
    }
  };
  try {
    if (status == CR_STATUS_OK) status = on_db_createtable();
  } catch (const std::bad_alloc&) {
    discard(CR_STATUS_NO_MEMORY);
    throw;
  }
  opened = status == CR_STATUS_OK;
  if (!opened) discard(status);
  return status;
}

cr_status_t sqlite3_wrapper::open_db() {
  if (opened) return CR_STATUS_OK;
  if (db != nullptr) {
    const cr_status_t closed = close_db(kCloseRetries);
    if (closed != CR_STATUS_OK) return closed;
  }

  cr_status_t status = CR_STATUS_OK;
  const int rc = connect(dbfile, longest_value, &db);
  if (rc == SQLITE_OK) {
    status = use_extended_codes(dbfile, db);
  } else {
    status = db_exception::dberr_to_crstatus(rc);
    ErrorA(status, "Failed to open database %s", dbfile.c_str());
  }
  if (status == CR_STATUS_OK) {
    opened = true;
  } else {
    close_db(kCloseRetries);  // the failed opening is what the caller learns
  }
  return status;
}

cr_status_t sqlite3_wrapper::open_db(const std::string& path) {
  if (db != nullptr && close_db(kCloseRetries) != CR_STATUS_OK) {
    // Kept, the old connection would answer for the new path: rows would go into another database.
    forget_handle();
  }
  dbfile = path;
  return open_db();
}

cr_status_t sqlite3_wrapper::checkopen() {
  if (db != nullptr) return CR_STATUS_OK;
  if (is_missing(dbfile)) return CR_STATUS_NOT_FOUND;
  if (!has_content(dbfile)) return CR_STATUS_BAD_DATA;
  return open_db();
}

void sqlite3_wrapper::forget_handle() {
  db = nullptr;
  opened = false;
  durable = false;
}

cr_status_t sqlite3_wrapper::close_db(unsigned long retries) {
  InfoA(CR_STATUS_OK, "Close SQLite database %s", dbfile.c_str());
  cr_status_t status = CR_STATUS_OK;
  if (db != nullptr) {
    status = catching_db_exception("close_db", [&] { return close_handle(dbfile, db, retries); });
  }
  if (status == CR_STATUS_OK) forget_handle();
  return status;
}

cr_status_t sqlite3_wrapper::drop_db() {
  close_db(kCloseRetries);  // the file goes even if its connection stays
  const cr_status_t status = wa_deletefile(dbfile.c_str());
  if (status == CR_STATUS_OK) {
    InfoA(CR_STATUS_OK, "Drop database %s.", dbfile.c_str());
  } else {
    ErrorA(status, "Failed to delete database file %s.", dbfile.c_str());
  }
  return status;
}

}  // namespace sqlitedb
