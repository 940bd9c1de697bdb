// `pocatalog check`: whether the parts of a catalog agree with each other.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct CheckOptions {
  std::string root;
};

// Compares the contents of every directory with their lists of containers, and the counters of
// every data store with its rows. Prints one line for each difference and a summary; changes
// nothing. What is being ingested meanwhile is no difference: counters that change are named as not
// examined.
int check(const Console& console, const CheckOptions& options);

}  // namespace cli
