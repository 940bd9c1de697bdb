#include "cli/tree_walk.h"

#include <utility>

namespace cli {

bool TreeWalk::next(DirectoryTask* task) {
  if (!std::exchange(started_, true)) {
    *task = top_;
    return true;
  }
  while (!levels_.empty() && levels_.back().position == levels_.back().below.size()) {
    levels_.pop_back();
  }
  if (levels_.empty()) return false;
  Level& level = levels_.back();
  const Subdirectory& found = level.below[level.position++];
  *task = {path_below(level.source, found.name), found.id, level.catalog + "/" + found.name};
  return true;
}

void TreeWalk::enter(const DirectoryTask& directory, std::vector<Subdirectory> below) {
  if (below.empty()) return;
  levels_.push_back({directory.source, directory.catalog, std::move(below), 0});
}

}  // namespace cli
