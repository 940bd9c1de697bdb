// These take the place of the host's, SQLite's and the system's functions, so that tests can act in
// the middle of a command.
#include <dlfcn.h>
#include <sys/syscall.h>
#include <unistd.h>

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

extern "C" int flock(int file, int operation) {
  if (hooks.lock) std::exchange(hooks.lock, nullptr)();
  return static_cast<int>(syscall(SYS_flock, file, operation));
}

extern "C" int zel_access(const char* path, int mode) {
  const std::string asked = path;
  if (asked == "/etc/tarn/fake-compliance-clock") return hooks.clock ? 0 : -1;
  if (asked == "/etc/tarn/worm" || asked == "/opt/halyard/arbor-manage/worm") return -1;
  return next<decltype(zel_access)>(__func__)(path, mode);
}
