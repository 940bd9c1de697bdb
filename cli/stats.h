// `pocatalog stats`: what a catalog holds.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "cli/command.h"

namespace cli {

struct StatsOptions {
  std::string root;
  std::optional<std::uint32_t> dsid;  // all data stores when empty
};

// Prints totals and the directories with most bytes directly in them. With --json the totals are
// one object, and each directory another.
int stats(const Console& console, const StatsOptions& options);

}  // namespace cli
