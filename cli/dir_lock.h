// Locks on the directories of a catalog, between processes and between threads.
#pragma once

#include <atomic>
#include <string>

#include "host/status.h"
#include "refhost/fd_internal.h"

namespace cli {

// Holds one catalog directory against everybody else who takes this lock, until it is destroyed.
//
// The lock lies on the directory itself, never on a database file: closing any descriptor of such a
// file would drop SQLite's own locks on it. Who changes the rows or the record of a directory,
// creates a subdirectory in it or deletes it, holds its lock meanwhile. Nobody waits for a
// directory while holding one below it.
class DirLock {
 public:
  // With `stop`, waiting ends when that is set.
  explicit DirLock(const std::atomic<bool>* stop = nullptr) : stop_(stop) {}

  // Waits for the lock of an existing directory. CR_STATUS_NOT_FOUND when there is none (any more);
  // symbolic links are not followed.
  cr_status_t lock(const std::string& directory);

  // The same, but makes the directory (mode 0700) and what is missing above it, down from `top`,
  // which exists and lies above; each under the lock of its parent.
  cr_status_t lock_or_create(const std::string& top, const std::string& directory);

  void unlock() { directory_ = refhost::Fd(); }

  // Whether no lock was taken because `stop` was set.
  bool stopped() const { return stopped_; }

 private:
  bool take(int directory);

  const std::atomic<bool>* stop_;
  bool stopped_ = false;
  refhost::Fd directory_;
};

}  // namespace cli
