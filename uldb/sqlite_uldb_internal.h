// What the operations of the store of DCID lists share.
#pragma once

#include "sqlitedb/sqlite_wrapper.h"

// Runs `work(retry)`, and once more when it says that a second try is worthwhile.
template <typename Work>
auto at_most_twice(Work work) {
  bool retry = false;
  const auto result = work(retry);
  return retry ? work(retry) : result;
}

// The status of a failed call: never 0, whatever SQLite answered.
inline cr_status_t failure_status(int rc) {
  const cr_status_t status = sqlitedb::db_exception::dberr_to_crstatus(rc);
  return status != CR_STATUS_OK ? status : CR_STATUS_FAILED;
}
