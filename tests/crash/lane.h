// How much a harness does, where, and with whom.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <new>

#include "host/status.h"

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

// Zeros that child processes write to as well, until the end of the program.
template <typename Number>
Number* shared(std::size_t count) {
  void* memory = mmap(nullptr, count * sizeof(Number), PROT_READ | PROT_WRITE,
                      MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  return memory == MAP_FAILED ? throw std::bad_alloc() : static_cast<Number*>(memory);
}

inline void must(cr_status_t status) {
  if (status != CR_STATUS_OK) throw status;
}
