// `pocatalog ls`: the entries of a catalog directory.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct LsOptions {
  std::string root;
  std::string path;
  bool recursive = false;
};

// Prints one line for each entry, in byte order of the names: files from the database, and
// subdirectories. The data stores for an empty path; one line when the path names a file. With
// `recursive` each directory below follows, after its path and with an empty line between two;
// with JSON, each entry names its directory.
int ls(const Console& console, const LsOptions& options);

}  // namespace cli
