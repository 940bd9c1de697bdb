// The order in which an ingest goes through a tree.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "cli/ingest_dir.h"

namespace cli {

// Depth first, parents before what is below them. Keeps only the names on the way down and opens
// nothing, so neither memory nor descriptors grow with the tree.
class TreeWalk {
 public:
  explicit TreeWalk(DirectoryTask top) : top_(std::move(top)) {}

  // The next directory; false after the last.
  bool next(DirectoryTask* task);

  // What was found in a directory that `next` gave; before it is called again.
  void enter(const DirectoryTask& directory, std::vector<Subdirectory> below);

 private:
  struct Level {
    std::string source;
    std::string catalog;
    std::vector<Subdirectory> below;
    std::size_t position;
  };

  DirectoryTask top_;
  bool started_ = false;
  std::vector<Level> levels_;
};

}  // namespace cli
