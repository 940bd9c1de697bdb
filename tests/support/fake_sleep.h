// FakeSleep: within its scope ZelSleep returns at once and its seconds are kept.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

#include "refhost/control.h"

class FakeSleep {
 public:
  // `each` is called in place of every sleep, for what shall happen meanwhile.
  explicit FakeSleep(std::function<void(unsigned int)> each = nullptr) {
    refhost::set_sleep([kept = kept_, each = std::move(each)](unsigned int seconds) {
      {
        const std::lock_guard<std::mutex> lock(kept->mutex);
        kept->seconds.push_back(seconds);
      }
      if (each) each(seconds);
    });
  }
  FakeSleep(const FakeSleep&) = delete;
  FakeSleep& operator=(const FakeSleep&) = delete;
  ~FakeSleep() { refhost::set_sleep(nullptr); }

  // The seconds of each sleep so far.
  std::vector<unsigned int> sleeps() const {
    const std::lock_guard<std::mutex> lock(kept_->mutex);
    return kept_->seconds;
  }

 private:
  struct Kept {
    std::mutex mutex;
    std::vector<unsigned int> seconds;
  };

  const std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();
};
