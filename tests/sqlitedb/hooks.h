// SQLite and host functions that tests make fail: this program defines them, so its definitions
// are called.
#pragma once

#include <deque>
#include <optional>

#include "host/status.h"

struct sqlite3;

namespace hooks {

struct State {
  std::deque<int> close_answers;  // what the next sqlite3_close calls answer, undone
  int close_calls = 0;
  sqlite3* left_open = nullptr;  // by such an answer
  int busy_timeout = 0;          // as it was asked for; SQLite gets 0, so that nobody waits
  std::optional<cr_status_t> mapped_error;
};
inline State state;

// Really closes what an answer left open and the library gave up.
void close_abandoned();

}  // namespace hooks
