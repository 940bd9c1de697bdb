#include "sqlite_uldb_hooks.h"

#include <dlfcn.h>
#include <sqlite3.h>

namespace {

int depth = 0;  // SQLite calls some of these itself

template <typename Function, typename... Arguments>
int hooked(const char* name, Function*, Arguments... arguments) {
  if (depth == 0 && hooks.function == name && --hooks.countdown == 0) return hooks.code;
  ++depth;
  const int rc = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name))(arguments...);
  --depth;
  return rc;
}

}  // namespace

extern "C" {

// A handle is made even when opening fails.
int sqlite3_open(const char* path, sqlite3** db) {
  const int rc = hooked(__func__, &sqlite3_open, path, db);
  if (rc != SQLITE_OK && *db == nullptr) sqlite3_open_v2(":memory:", db, 6, nullptr);
  return rc;
}
int sqlite3_busy_timeout(sqlite3* db, int ms) {
  hooks.busy_timeout = ms;
  return hooked(__func__, &sqlite3_busy_timeout, db, 0);
}
int sqlite3_exec(sqlite3* db, const char* sql, sqlite3_callback row, void* to, char** error) {
  return hooked(__func__, &sqlite3_exec, db, sql, row, to, error);
}
int sqlite3_prepare_v2(sqlite3* db, const char* sql, int n, sqlite3_stmt** out, const char** tail) {
  return hooked(__func__, &sqlite3_prepare_v2, db, sql, n, out, tail);
}
int sqlite3_bind_text(sqlite3_stmt* to, int at, const char* text, int n, void (*end)(void*)) {
  return hooked(__func__, &sqlite3_bind_text, to, at, text, n, end);
}
int sqlite3_bind_blob(sqlite3_stmt* to, int at, const void* bytes, int n, void (*end)(void*)) {
  return hooked(__func__, &sqlite3_bind_blob, to, at, bytes, n, end);
}
int sqlite3_step(sqlite3_stmt* statement) {
  if (depth == 0 && hooks.before_step) hooks.before_step();
  return hooked(__func__, &sqlite3_step, statement);
}

}  // extern "C"
