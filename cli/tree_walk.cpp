#include "cli/tree_walk.h"

#include <utility>

namespace cli {

TreeWalk::TreeWalk(DirectoryTask top, const std::atomic<bool>& stop)
    : stop_(stop), top_(std::move(top)) {}

bool TreeWalk::next(DirectoryTask* task) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (stop_ || failure_) return false;
    if (pop(task)) break;
    if (in_work_ == 0) return false;
    changed_.wait(lock);
  }
  ++in_work_;
  return true;
}

bool TreeWalk::pop(DirectoryTask* task) {
  if (top_) {
    *task = *std::exchange(top_, std::nullopt);
    return true;
  }
  if (levels_.empty()) return false;
  Level& level = levels_.back();
  const Subdirectory& found = level.below[level.position++];
  *task = {path_below(level.source, found.name), found.id, level.catalog + "/" + found.name};
  if (level.position == level.below.size()) levels_.pop_back();
  return true;
}

// Everybody is woken: those who wait have work now, or see that none will come.
void TreeWalk::enter(const DirectoryTask& directory, std::vector<Subdirectory> below) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!below.empty()) levels_.push_back({directory.source, directory.catalog, std::move(below), 0});
  --in_work_;
  changed_.notify_all();
}

void TreeWalk::fail(std::exception_ptr cause) noexcept {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (!failure_) failure_ = std::move(cause);
  changed_.notify_all();
}

void TreeWalk::rethrow() {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (failure_) std::rethrow_exception(failure_);
}

}  // namespace cli
