// The progress line of an ingest.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "cli/command.h"

namespace cli {

// Shows entries, bytes read and rate on a terminal, a few times a second; nothing elsewhere. Counts
// from any thread.
class Progress {
 public:
  explicit Progress(const Console& console);

  void entry();
  void bytes(std::uint64_t count);  // in the middle of a large file, too

  // Takes the line away, so that something else can be printed there; it does not come back before
  // the result is destroyed.
  std::unique_lock<std::mutex> pause();

 private:
  using Clock = std::chrono::steady_clock;

  void draw_when_due();
  void draw(Clock::time_point now);

  const Console& console_;
  const Clock::time_point start_;

  std::atomic<std::uint64_t> entries_{0};
  std::atomic<std::uint64_t> bytes_{0};

  std::mutex drawing_;
  Clock::time_point drawn_;  // guarded by `drawing_`
};

}  // namespace cli
