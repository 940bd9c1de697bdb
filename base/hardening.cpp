#include <sqlite3.h>

#include <algorithm>
#include <limits>

#include "base/hardening_internal.h"

namespace {

struct Setting {
  int option;
  int value;
};

constexpr Setting kSettings[] = {
    {SQLITE_DBCONFIG_DEFENSIVE, 1},       {SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0},
    {SQLITE_DBCONFIG_ENABLE_TRIGGER, 0},  {SQLITE_DBCONFIG_ENABLE_VIEW, 0},
    {SQLITE_DBCONFIG_WRITABLE_SCHEMA, 0}, {SQLITE_DBCONFIG_ENABLE_LOAD_EXTENSION, 0},
};

constexpr const char* kPragmas = "PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0;";

constexpr sqlite3_int64 kAnySize = std::numeric_limits<int>::max();

// Of the open file, which is quicker to ask than one that a path leads to.
sqlite3_int64 file_size(sqlite3* db) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file);
  sqlite3_int64 size = kAnySize;
  const bool is_open = file != nullptr && file->pMethods != nullptr;
  return is_open && file->pMethods->xFileSize(file, &size) == SQLITE_OK ? size : kAnySize;
}

}  // namespace

// A connection that misses one of these, as for want of memory, works all the same.
void harden(sqlite3* db) {
  for (const Setting& setting : kSettings) {
    sqlite3_db_config(db, setting.option, setting.value, nullptr);
  }
  sqlite3_exec(db, kPragmas, nullptr, nullptr, nullptr);
}

void limit_values(sqlite3* db) {
  constexpr sqlite3_int64 kHeldBack = 8 << 20;
  const sqlite3_int64 longest = std::min(file_size(db), kAnySize - kHeldBack) + kHeldBack;
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, static_cast<int>(longest));
}

void unlimit_values(sqlite3* db) {
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, static_cast<int>(kAnySize));
}
