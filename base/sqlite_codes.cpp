#include "base/sqlite_codes_internal.h"

#include <sqlite3.h>

#include <cerrno>

namespace {

// Those that SQLite takes for a damaged file system when it reads.
bool is_unreadable(int error) { return error == EIO || error == ENXIO || error == ERANGE; }

bool failed_to_read(sqlite3* db) {
  int error = 0;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_LAST_ERRNO, &error);
  if (is_unreadable(error)) return true;
  sqlite3_file* journal = nullptr;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_JOURNAL_POINTER, &journal);
  const bool is_open = journal != nullptr && journal->pMethods != nullptr;
  if (!is_open || journal->pMethods->xFileControl == nullptr) return false;  // none, or in memory
  journal->pMethods->xFileControl(journal, SQLITE_FCNTL_LAST_ERRNO, &error);
  return is_unreadable(error);
}

}  // namespace

int without_false_damage(sqlite3* db, int code) {
  constexpr int kPrimary = 0xFF;
  if (db == nullptr || (code & kPrimary) != SQLITE_CORRUPT) return code;
  return failed_to_read(db) ? SQLITE_IOERR_READ : code;
}
