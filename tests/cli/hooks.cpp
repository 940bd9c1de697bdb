// These take the place of the host's, SQLite's and the system's functions, so that tests can act in
// the middle of a command.
#include <dlfcn.h>
#include <sys/file.h>

#include <cstring>

#include "host/files.h"
#include "tests/cli/read_fixture.h"

namespace {

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

char* POToStringMalloced(const _po_t* record) {
  static auto* const real = next<decltype(POToStringMalloced)>(__func__);
  const bool too_long = hooks.record && hooks.record(record);
  return too_long ? strdup(std::string(2048, 'x').c_str()) : real(record);
}

int sqlite3_exec(sqlite3* db, const char* sql, int (*row)(void*, int, char**, char**), void* out,
                 char** error) {
  static auto* const real = next<decltype(sqlite3_exec)>(__func__);
  const int code = hooks.sql && sql != nullptr ? hooks.sql(sql) : SQLITE_OK;
  return code != SQLITE_OK ? code : real(db, sql, row, out, error);
}

extern "C" int flock(int file, int operation) noexcept {
  static auto* const real = next<int(int, int)>(__func__);
  if (hooks.lock) std::exchange(hooks.lock, nullptr)();
  return real(file, operation);
}

extern "C" int zel_access(const char* path, int mode) {
  static auto* const real = next<decltype(zel_access)>(__func__);
  const bool asks_for_clock = std::string(path) == "/etc/tarn/fake-compliance-clock";
  return asks_for_clock ? int{hooks.clock} - 1 : real(path, mode);
}
