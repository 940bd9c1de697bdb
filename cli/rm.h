// `pocatalog rm`: removes one entry.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct RmOptions {
  std::string root;
  std::string path;
};

// Removes a file's row, or a directory that has nothing below it, and keeps the counters of the
// data store. Refuses entries of immutable images, and those whose retention
// lock is in force.
int rm(const Console& console, const RmOptions& options);

}  // namespace cli
