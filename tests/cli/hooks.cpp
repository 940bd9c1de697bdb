// These take the place of the host's, SQLite's and the system's functions, so that tests can act in
// the middle of a command.
#include <sys/file.h>

#include <cstring>

#include "tests/cli/read_fixture.h"
#include "tests/support/next.h"

char* POToStringMalloced(const _po_t* record) {
  static auto* const real = next(__func__, &POToStringMalloced);
  const bool too_long = hooks.record && hooks.record(record);
  return too_long ? strdup(std::string(2048, 'x').c_str()) : real(record);
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*row)(void*, int, char**, char**), void* out,
                 char** error) {
  static auto* const real = next(__func__, &sqlite3_exec);
  const int code = hooks.sql && sql != nullptr ? hooks.sql(sql) : SQLITE_OK;
  return code != SQLITE_OK ? code : real(db, sql, row, out, error);
}

extern "C" int flock(int file, int operation) noexcept {
  static auto* const real = next(__func__, &flock);
  if (hooks.lock) std::exchange(hooks.lock, nullptr)();
  return real(file, operation);
}

extern "C" int zel_access(const char* path, int mode) {
  static auto* const real = next(__func__, &zel_access);
  const bool asks_for_clock = std::string(path) == "/etc/tarn/fake-compliance-clock";
  return asks_for_clock ? int{hooks.clock} - 1 : real(path, mode);
}
