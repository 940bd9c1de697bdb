// `pocatalog retention`: locks entries, and shows how long they are locked.
#pragma once

#include <cstdint>
#include <string>

#include "cli/command.h"

namespace cli {

struct RetentionSetOptions {
  std::string root;
  std::string path;
  std::int64_t seconds = 0;  // 1 and above
  bool immutable = false;
  bool cloud = false;  // the lock counts from the entry's change time, not from now
};

// Locks a file's entry, under its directory's lock and in one transaction. A lock in force is never
// shortened: kLockInForce, and it is named.
int retention_set(const Console& console, const RetentionSetOptions& options);

struct RetentionShowOptions {
  std::string root;
  std::string path;
};

// Shows an entry's lock and flags. Without a compliance clock the lock's end alone.
int retention_show(const Console& console, const RetentionShowOptions& options);

}  // namespace cli
