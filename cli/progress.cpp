#include "cli/progress.h"

#include <fmt/format.h>

#include <ostream>

namespace cli {
namespace {

constexpr std::chrono::milliseconds kInterval(200);
constexpr double kMebibyte = 1024.0 * 1024.0;
constexpr const char* kEraseLine = "\r\x1b[K";

}  // namespace

Progress::Progress(const Console& console)
    : console_(console), start_(Clock::now()), drawn_(start_) {}

void Progress::entry() {
  ++entries_;
  draw_when_due();
}

void Progress::bytes(std::uint64_t count) {
  bytes_ += count;
  draw_when_due();
}

void Progress::draw_when_due() {
  if (!console_.progress) return;
  const std::unique_lock<std::mutex> lock(drawing_, std::try_to_lock);
  if (!lock.owns_lock()) return;
  const Clock::time_point now = Clock::now();
  if (now - drawn_ >= kInterval) draw(now);
}

void Progress::draw(Clock::time_point now) {
  drawn_ = now;
  const double seconds = std::chrono::duration<double>(now - start_).count();
  const double mebibytes = static_cast<double>(bytes_) / kMebibyte;
  console_.err << fmt::format("{}{} entries, {:.1f} MiB, {:.1f} MiB/s", kEraseLine, entries_.load(),
                              mebibytes, mebibytes / seconds)
               << std::flush;
}

std::unique_lock<std::mutex> Progress::pause() {
  std::unique_lock<std::mutex> lock(drawing_);
  if (console_.progress) console_.err << kEraseLine << std::flush;
  return lock;
}

}  // namespace cli
