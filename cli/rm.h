// `pocatalog rm`: removes one entry.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/command.h"

namespace cli {

struct RmOptions {
  std::string root;
  std::string path;
  std::optional<std::int64_t> damaged_row;  // the rowid of a row of the directory `path`
};

// Removes a file's row, a directory that has nothing below it, or a damaged row, and keeps the
// counters of the data store. Refuses entries of immutable images, and those whose retention lock
// is in force.
int rm(const Console& console, const RmOptions& options);

}  // namespace cli
