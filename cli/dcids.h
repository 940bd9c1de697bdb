// `pocatalog dcids`: the data containers of one content.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct DcidsOptions {
  std::string root;
  std::string content;  // a file's path below the root, or a POID
};

// Prints one line for each container: its number and the bytes that it holds of the content, then
// the totals (not with --json). A POID is looked for in all directories; the first list counts.
int dcids(const Console& console, const DcidsOptions& options);

}  // namespace cli
