#include <sqlite3.h>

#include <algorithm>

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

}  // namespace

// A connection that misses one of these, as for want of memory, works all the same.
void harden(sqlite3* db) {
  for (const Setting& setting : kSettings) {
    sqlite3_db_config(db, setting.option, setting.value, nullptr);
  }
  sqlite3_exec(db, kPragmas, nullptr, nullptr, nullptr);
}

void limit_values(sqlite3* db, std::int64_t file_size) {
  constexpr std::int64_t kHeldBack = 8 << 20;
  const std::int64_t longest = std::min(file_size + kHeldBack, kAnySize);
  sqlite3_limit(db, SQLITE_LIMIT_LENGTH, static_cast<int>(longest));
}
