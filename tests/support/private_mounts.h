// Tests of files at fixed places: they run in a child process with mounts of its own, so that
// nothing of the machine changes and each starts with a library that has remembered nothing.
#pragma once

#include <sched.h>
#include <sys/mount.h>

#include <cstdlib>

#include "tests/support/child_process.h"

// Runs `body` where each of `emptied` is a fresh, empty directory. To be the last thing of a test,
// which is skipped where the system refuses such mounts.
inline void in_private_mounts(const std::vector<std::string>& emptied,
                              const std::function<void()>& body) {
  constexpr int kRefused = 77;
  const int ended = end_of(start_child([&]() -> int {
    bool made = unshare(CLONE_NEWNS) == 0 &&
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    for (const std::string& directory : emptied) {
      made = made && mount("tmpfs", directory.c_str(), "tmpfs", 0, nullptr) == 0;
    }
    if (made) body();
    std::exit(made ? int{testing::Test::HasFailure()} : kRefused);  // counted lines are kept
  }));
  if (WEXITSTATUS(ended) == kRefused) GTEST_SKIP() << "no private mounts on this system";
  EXPECT_EQ(ended, 0) << "the child process failed";
}
