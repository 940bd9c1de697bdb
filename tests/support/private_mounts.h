// Tests of files at fixed places: they run in a child process with mounts of its own, so that
// nothing of the machine changes and each starts with a library that has remembered nothing.
#pragma once

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <vector>

// Runs `body` where each of `emptied` is a fresh, empty directory. To be the last thing of a test,
// which is skipped where the system refuses such mounts.
inline void in_private_mounts(const std::vector<std::string>& emptied,
                              const std::function<void()>& body) {
  constexpr int kRefused = 77;
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) {
    bool made = unshare(CLONE_NEWNS) == 0 &&
                mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
    for (const std::string& directory : emptied) {
      made = made && mount("tmpfs", directory.c_str(), "tmpfs", 0, nullptr) == 0;
    }
    if (made) body();
    std::fflush(nullptr);
    std::exit(made ? int{testing::Test::HasFailure()} : kRefused);  // counted lines are kept
  }
  int status = 0;
  waitpid(child, &status, 0);
  if (WIFEXITED(status) && WEXITSTATUS(status) == kRefused) {
    GTEST_SKIP() << "this system refuses a private mount namespace";
  }
  EXPECT_EQ(status, 0) << "the child process failed";
}
