#include "cli/period.h"

#include <charconv>

namespace cli {
namespace {

// 0 for what is no unit.
std::int64_t seconds_of(char unit) {
  switch (unit) {
    case 's':
      return 1;
    case 'm':
      return 60;
    case 'h':
      return 3600;
    case 'd':
      return 86400;
    case 'w':
      return 604800;
    default:
      return 0;
  }
}

}  // namespace

std::optional<std::int64_t> parse_period(const std::string& text) {
  if (text.empty()) return std::nullopt;
  std::int64_t number = 0;
  const char* unit = text.data() + text.size() - 1;
  const auto parsed = std::from_chars(text.data(), unit, number);
  std::int64_t seconds = 0;
  const bool whole = parsed.ec == std::errc() && parsed.ptr == unit;
  if (!whole || __builtin_mul_overflow(number, seconds_of(*unit), &seconds)) return std::nullopt;
  if (seconds <= 0) return std::nullopt;
  return seconds;
}

}  // namespace cli
