#include <atomic>
#include <cerrno>
#include <ctime>
#include <functional>
#include <limits>
#include <mutex>
#include <utility>

#include "host/files.h"
#include "refhost/control.h"

namespace refhost {
namespace {

constexpr hrtime_t kNanosecondsPerSecond = 1'000'000'000;

// Stands for the real clock in place of a time that was set.
constexpr hrtime_t kReal = std::numeric_limits<hrtime_t>::min();
std::atomic<hrtime_t> set_time{kReal};

std::mutex sleep_mutex;
std::function<void(unsigned int)> sleep_function;  // guarded by sleep_mutex

hrtime_t real_time() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

void really_sleep(unsigned int seconds) {
  timespec rest{static_cast<time_t>(seconds), 0};
  while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
  }
}

}  // namespace

void set_clock(hrtime_t nanoseconds) { set_time = nanoseconds; }

void advance_clock(hrtime_t nanoseconds) {
  hrtime_t unset = kReal;
  set_time.compare_exchange_strong(unset, real_time());
  set_time += nanoseconds;
}

void use_real_clock() { set_time = kReal; }

void set_sleep(std::function<void(unsigned int)> sleep) {
  const std::lock_guard<std::mutex> lock(sleep_mutex);
  sleep_function = std::move(sleep);
}

}  // namespace refhost

hrtime_t gethrtime() {
  const hrtime_t time = refhost::set_time;
  return time == refhost::kReal ? refhost::real_time() : time;
}

double hrtime2seconds(hrtime_t delta) {
  return static_cast<double>(delta) / static_cast<double>(refhost::kNanosecondsPerSecond);
}

void ZelSleep(unsigned int seconds) {
  std::function<void(unsigned int)> sleep;
  {
    const std::lock_guard<std::mutex> lock(refhost::sleep_mutex);
    sleep = refhost::sleep_function;
  }
  sleep ? sleep(seconds) : refhost::really_sleep(seconds);
}
