#include "cli/stop_signal.h"

namespace cli {
namespace {

constexpr std::array<int, 2> kSignals = {SIGINT, SIGTERM};

// All that a signal handler may touch.
std::atomic<bool> stop_requested{false};
static_assert(std::atomic<bool>::is_always_lock_free, "used in a signal handler");

void request_stop(int /*signal*/) { stop_requested = true; }

}  // namespace

StopSignal::StopSignal() {
  stop_requested = false;
  struct sigaction action {};
  action.sa_handler = request_stop;
  action.sa_flags = SA_RESTART;
  for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &action, &before_[i]);
}

StopSignal::~StopSignal() {
  for (std::size_t i = 0; i < kSignals.size(); ++i) sigaction(kSignals[i], &before_[i], nullptr);
}

const std::atomic<bool>& StopSignal::requested() const { return stop_requested; }

}  // namespace cli
