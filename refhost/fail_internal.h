// How the host's functions report failure: the status cell, and statuses for `errno` values.
#pragma once

#include "host/status.h"

namespace refhost {

// Stores the status in the calling thread's cell and returns it.
inline cr_status_t fail(cr_status_t status) { return *__cr_errno_location() = status; }

// As fail, with the status that `errno` maps to; `errno` stays.
cr_status_t fail_errno();

// Sets `errno` to EINVAL and fails with the status of a bad argument.
cr_status_t fail_argument();

// The results of functions that answer 0 or -1.
inline int refuse(cr_status_t status) {
  fail(status);
  return -1;
}
inline int zero_or_refuse(int result) {
  if (result != 0) fail_errno();
  return result;
}

}  // namespace refhost
