// The way in which a user ends a long run.
#pragma once

#include <signal.h>

#include <array>
#include <atomic>

namespace cli {

// While it lives, SIGINT and SIGTERM only ask the run to stop. One at a time.
class StopSignal {
 public:
  StopSignal();
  StopSignal(const StopSignal&) = delete;
  StopSignal& operator=(const StopSignal&) = delete;
  ~StopSignal();

  const std::atomic<bool>& requested() const;

 private:
  std::array<struct sigaction, 2> before_{};
};

}  // namespace cli
