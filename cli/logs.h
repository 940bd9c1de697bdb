// `pocatalog logs`: removes old logs.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct LogsCleanOptions {
  std::string directory;
  int days = 0;        // 0 is no limit
  int empty_days = 0;  // of empty files; 0 is no limit
  std::string key;     // what a path must contain; empty means that none was given
  bool recursive = false;
};

// Deletes files that are older. Refuses the root of the file system, and a directory that holds
// anything of a catalog. kIncomplete when it may not remove files of some directory.
int logs_clean(const Console& console, const LogsCleanOptions& options);

}  // namespace cli
