#include "cli/patrol_timer.h"

namespace cli {

void PatrolTimer::start_round() {
  const std::lock_guard<std::mutex> lock(mutex_);
  round_asked_for_ = true;
  changed_.notify_all();
}

void PatrolTimer::stop() {
  const std::lock_guard<std::mutex> lock(mutex_);
  stopped_ = true;
  changed_.notify_all();
}

bool PatrolTimer::wait_finished(std::chrono::milliseconds longest) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, longest, [this] { return finished_; });
}

bool PatrolTimer::wait_until(Clock::time_point due) {
  std::unique_lock<std::mutex> lock(mutex_);
  changed_.wait_until(lock, due, [this] { return stopped_ || round_asked_for_; });
  round_asked_for_ = false;
  return !stopped_;
}

bool PatrolTimer::pause(std::chrono::milliseconds length) {
  std::unique_lock<std::mutex> lock(mutex_);
  return !changed_.wait_for(lock, length, [this] { return stopped_; });
}

void PatrolTimer::finish() {
  const std::lock_guard<std::mutex> lock(mutex_);
  finished_ = true;
  changed_.notify_all();
}

}  // namespace cli
