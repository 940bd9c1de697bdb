// SQLite functions as the test program defines them; its definitions are called.
#pragma once

#include <functional>
#include <string>

struct UldbHooks {
  std::string function;  // its `countdown`th call answers `code` in place of its work
  int code = 0;
  int countdown = 0;
  std::function<void()> before_step;
  int busy_timeout = 0;  // as last asked for; SQLite gets 0, so that nobody waits
};
inline UldbHooks hooks;
