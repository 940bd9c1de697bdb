// When the patrol works and when it waits.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace cli {

// Between two threads: one works, the other tells it what to do.
class PatrolTimer {
 public:
  using Clock = std::chrono::steady_clock;

  // For the one that tells. A round that is started during another one follows it.
  void start_round();
  void stop();
  // False when the worker has not finished within that time.
  bool wait_finished(std::chrono::milliseconds longest);

  // For the worker. Both wait, unless it is to stop, and answer false then; the first ends when a
  // round is started, too.
  bool wait_until(Clock::time_point due);
  bool pause(std::chrono::milliseconds length);
  void finish();

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  // Guarded by the mutex.
  bool round_asked_for_ = false;
  bool stopped_ = false;
  bool finished_ = false;
};

}  // namespace cli
