// What the fuzz targets share. Each defines LLVMFuzzerTestOneInput, which ends the process when a
// property does not hold; libFuzzer calls it with what it makes up, replay_main.cpp with the files
// of a corpus.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "refhost/control.h"
#include "tests/support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

inline void require(bool holds, const char* property) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", property);
  std::abort();
}

// A directory of this process's own, in memory where there is such a place; log lines are dropped
// from its making on.
inline const std::string& scratch() {
  static const std::string path = [] {
    constexpr const char* kMemory = "/dev/shm";
    if (access(kMemory, W_OK) == 0) setenv("TMPDIR", kMemory, 0);
    refhost::log_to_sink([](const refhost::LogLine&) {});
    static const TempDir directory;
    return directory.path();
  }();
  return path;
}

// Takes the input apart from its front.
class Input {
 public:
  Input(const std::uint8_t* data, std::size_t size)
      : bytes_(reinterpret_cast<const char*>(data), size) {}

  // 0 at the end.
  unsigned int byte() {
    return at_ < bytes_.size() ? static_cast<unsigned char>(bytes_[at_++]) : 0U;
  }
  // Up to the next `end`, which goes with it.
  std::string text(char end) {
    const std::size_t found = std::min(bytes_.find(end, at_), bytes_.size());
    std::string taken = bytes_.substr(at_, found - at_);
    at_ = std::min(found + 1, bytes_.size());
    return taken;
  }
  std::string rest() {
    std::string taken = bytes_.substr(at_);
    at_ = bytes_.size();
    return taken;
  }
  bool at_end() const { return at_ == bytes_.size(); }

 private:
  const std::string bytes_;
  std::size_t at_ = 0;
};
