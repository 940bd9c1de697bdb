// `pocatalog patrol`: the night watch of a catalog.
#pragma once

#include <cstdint>
#include <string>

#include "cli/command.h"

namespace cli {

struct PatrolOptions {
  std::string root;
  std::int64_t every = 0;  // seconds from the start of a round to the next
  std::string log_dir;
  std::int64_t keep_logs = 30LL * 86400;  // seconds
  std::string metrics;                    // empty for none
  bool foreground = false;
};

// Becomes the only patrol of the catalog and verifies it again and again, until SIGTERM or SIGINT;
// SIGHUP starts a round at once. What it finds goes to its log. Returns in the daemon when that
// ends, and in the process that called as soon as the daemon has its lock and its log: kDone; or
// with the reason why there is none.
int patrol(const Console& console, const PatrolOptions& options);

}  // namespace cli
