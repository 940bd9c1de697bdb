// How much a harness does, and where.
#pragma once

#include <unistd.h>

#include <cstdlib>

// The value of an environment variable, for long runs, or what is usual.
inline unsigned long sized(const char* variable, unsigned long usual) {
  const char* value = std::getenv(variable);
  return value != nullptr ? std::strtoul(value, nullptr, 10) : usual;
}

// Has TempDir work in memory, where a commit takes no time, unless TMPDIR says where.
inline void work_in_memory() {
  constexpr const char* kMemory = "/dev/shm";
  if (access(kMemory, W_OK) == 0) setenv("TMPDIR", kMemory, 0);
}
