// How the rooms that use SQLite report failures and wait for a busy database: once, for all of
// them.
#pragma once

#include <string>
#include <string_view>

#include "host/files.h"
#include "host/log.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

// How long SQLite itself waits for a lock, in milliseconds.
inline constexpr int kBusyTimeoutMs = 10000;

// How often a busy connection's closing is tried again.
inline constexpr unsigned long kCloseRetries = 3;

// Logs that the database has no connection and returns CR_STATUS_NOT_FOUND.
cr_status_t log_not_opened(const std::string& file);

// Logs an exception that `operation` caught and returns its status.
cr_status_t log_db_exception(const char* operation, const db_exception& caught);

// `sql` as it stands in log lines: cut, with dots, when it is longer than 1024 bytes.
std::string shortened_for_log(std::string_view sql);

// Runs `work`; corruption that it throws is logged under `operation` and becomes the result.
template <typename Work>
cr_status_t catching_db_exception(const char* operation, Work work) {
  try {
    return work();
  } catch (const db_exception& caught) {
    return log_db_exception(operation, caught);
  }
}

// Runs `work` until its answer is not CR_STATUS_BUSY: at most 60 times, a second after each busy
// answer.
template <typename Work>
cr_status_t retry_while_busy(Work work) {
  constexpr int kAttempts = 60;
  for (int attempt = 0; attempt < kAttempts; ++attempt) {
    const cr_status_t status = work();
    if (status != CR_STATUS_BUSY) return status;
    ZelSleep(1);
  }
  return CR_STATUS_BUSY;
}

}  // namespace sqlitedb
