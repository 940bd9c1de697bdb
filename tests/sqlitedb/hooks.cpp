#include "hooks.h"

#include <dlfcn.h>
#include <sqlite3.h>

namespace {

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

void hooks::close_abandoned() { next<decltype(sqlite3_close)>("sqlite3_close")(state.left_open); }

extern "C" int sqlite3_close(sqlite3* db) {
  hooks::State& state = hooks::state;
  ++state.close_calls;
  if (state.close_answers.empty()) return next<decltype(sqlite3_close)>(__func__)(db);
  const int answer = state.close_answers.front();
  state.close_answers.pop_front();
  state.left_open = db;
  return answer;
}

extern "C" int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  hooks::state.busy_timeout = milliseconds;
  return next<decltype(sqlite3_busy_timeout)>(__func__)(db, 0);
}

extern "C" cr_status_t _crMapError(const char* function, const char* source, int line) {
  if (hooks::state.mapped_error) return *hooks::state.mapped_error;
  return next<decltype(_crMapError)>(__func__)(function, source, line);
}
