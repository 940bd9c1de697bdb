// The order in which an ingest goes through a tree.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <exception>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "cli/ingest_dir.h"

namespace cli {

// Hands the directories of a tree to threads, which find more of them. Depth first, parents before
// what is below them. Keeps only the names on the ways down and opens nothing, so neither memory
// nor descriptors grow with the tree. All operations may be called from any thread.
class TreeWalk {
 public:
  TreeWalk(DirectoryTask top, const std::atomic<bool>& stop);

  // The next directory; waits while others may still find one. False after the last, when the run
  // is to stop and when a thread has failed.
  bool next(DirectoryTask* task);

  // What was found in a directory that `next` gave: once for each.
  void enter(const DirectoryTask& directory, std::vector<Subdirectory> below);

  // Ends the walk for all threads, because of what the calling one caught.
  void fail(std::exception_ptr cause) noexcept;

  // Throws what the first failed thread caught, if there is one.
  void rethrow();

 private:
  struct Level {
    std::string source;
    std::string catalog;
    std::vector<Subdirectory> below;
    std::size_t position;
  };

  bool pop(DirectoryTask* task);

  const std::atomic<bool>& stop_;

  std::mutex mutex_;  // guards what follows
  std::condition_variable changed_;
  std::optional<DirectoryTask> top_;  // until it is given
  std::size_t in_work_ = 0;           // directories given and not yet entered
  std::vector<Level> levels_;
  std::exception_ptr failure_;
};

}  // namespace cli
