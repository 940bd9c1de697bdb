// Why a call of the system or of SQLite failed, in its own words: many a status says no more than
// that it did.
#pragma once

#include <string>

#include "host/status.h"

namespace cli {

// From now on SQLite's own log tells causes: the first failure after one was taken, unless a later
// one names a call of the system. Before SQLite's first use; without effect later.
void watch_sqlite();

// The calling thread's `errno` is the cause of that status, if it needs one. Returns the status.
cr_status_t keep_errno_of(cr_status_t status);

// Gives back what was taken.
void keep_cause(const std::string& text);

// The cause of the calling thread's last failure, which is forgotten, with `errno`; empty when
// nothing is known.
std::string take_cause();

// Whether a cause says more than this status.
bool needs_cause(cr_status_t status);

}  // namespace cli
