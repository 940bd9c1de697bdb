#include <sqlite3.h>
#include <sys/stat.h>
#include <unistd.h>

#include "base/hardening_internal.h"
#include "base/honest_vfs_internal.h"
#include "host/files.h"
#include "sqlitedb/open_internal.h"

namespace sqlitedb {

namespace {

bool is_irregular(const std::string& file) {
  struct stat info {};
  return wa_stat(file.c_str(), &info) == CR_STATUS_OK && !S_ISREG(info.st_mode);
}

bool is_needlessly_read_only(const std::string& file, sqlite3* db) {
  return sqlite3_db_readonly(db, "main") == 1 && wa_access(file.c_str(), W_OK) == CR_STATUS_OK;
}

}  // namespace

int open_hardened(const std::string& file, sqlite3** db) {
  if (is_irregular(file)) return SQLITE_CANTOPEN;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  int rc = sqlite3_open_v2(file.c_str(), db, kFlags, base::honest_vfs());
  if (rc == SQLITE_OK && is_needlessly_read_only(file, *db)) {
    sqlite3_close(*db);
    *db = nullptr;
    rc = SQLITE_CANTOPEN;
  }
  if (rc == SQLITE_OK) harden(*db);
  return rc;
}

}  // namespace sqlitedb
