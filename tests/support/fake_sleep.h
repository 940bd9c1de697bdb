// FakeSleep: within its scope ZelSleep returns at once and its seconds are kept.
#pragma once

#include <vector>

#include "refhost/control.h"

// For tests that sleep on one thread at a time.
class FakeSleep {
 public:
  // `each` is called in place of every sleep, for what shall happen meanwhile.
  explicit FakeSleep(const std::function<void(unsigned int)>& each = nullptr) {
    refhost::set_sleep([this, each](unsigned int seconds) {
      sleeps_.push_back(seconds);
      if (each) each(seconds);
    });
  }
  FakeSleep(const FakeSleep&) = delete;
  FakeSleep& operator=(const FakeSleep&) = delete;
  ~FakeSleep() { refhost::set_sleep(nullptr); }

  // The seconds of each sleep so far.
  const std::vector<unsigned int>& sleeps() const { return sleeps_; }

 private:
  mutable std::vector<unsigned int> sleeps_;  // of constant objects, too
};
