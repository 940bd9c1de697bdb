// Work in another process.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>

// Runs `act` in a child process, which ends with its result, or dies of what it throws.
inline pid_t start_child(const std::function<int()>& act) {
  std::fflush(nullptr);
  const pid_t child = fork();
  if (child == 0) [&act]() noexcept { _exit(act()); }();
  return child;
}

inline int end_of(pid_t child) {
  int status = 0;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  return status;
}
