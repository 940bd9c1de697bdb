// `pocatalog show`: one entry in full.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct ShowOptions {
  std::string root;
  std::string path;
};

// Prints where the entry lies and every field of its record; for a file also its row's checksum.
int show(const Console& console, const ShowOptions& options);

}  // namespace cli
