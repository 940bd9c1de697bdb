#include "cli/time_text.h"

#include <charconv>
#include <cstddef>
#include <ctime>
#include <string_view>

namespace cli {
namespace {

// Takes a text apart from its start. What was not as asked for makes it fail for good.
class Scanner {
 public:
  explicit Scanner(std::string_view text) : rest_(text) {}

  // Exactly that many digits.
  int digits(std::size_t count) {
    const std::string_view field = rest_.substr(0, count);
    if (field.size() != count || field.find_first_not_of(kDigits) != std::string_view::npos)
      failed_ = true;
    int value = 0;
    if (!failed_) std::from_chars(field.data(), field.data() + field.size(), value);
    rest_.remove_prefix(field.size());
    return value;
  }

  // One of these characters.
  char one_of(std::string_view characters) {
    const char next = rest_.empty() ? '\0' : rest_.front();
    if (next == '\0' || characters.find(next) == std::string_view::npos) {
      failed_ = true;
    } else {
      rest_.remove_prefix(1);
    }
    return next;
  }

  void skip_fraction() {
    if (rest_.empty() || rest_.front() != '.') return;
    const std::size_t end = rest_.find_first_not_of(kDigits, 1);
    if (end == 1 || rest_.size() == 1) failed_ = true;
    rest_.remove_prefix(end == std::string_view::npos ? rest_.size() : end);
  }

  bool done() const { return !failed_ && rest_.empty(); }

 private:
  static constexpr std::string_view kDigits = "0123456789";

  std::string_view rest_;
  bool failed_ = false;
};

// The start of that day, if there is such a day.
std::optional<std::int64_t> start_of_day(int year, int month, int day) {
  std::tm parts = {};
  parts.tm_year = year - 1900;
  parts.tm_mon = month - 1;
  parts.tm_mday = day;
  const std::time_t seconds = timegm(&parts);  // turns the 31st of June into the 1st of July
  if (parts.tm_mon != month - 1 || parts.tm_mday != day) return std::nullopt;
  return seconds;
}

std::optional<std::int64_t> seconds_of(int hour, int minute, int second) {
  constexpr int kLeapSecond = 60;
  if (hour > 23 || minute > 59 || second > kLeapSecond) return std::nullopt;
  return std::int64_t{hour} * 3600 + std::int64_t{minute} * 60 + second;
}

std::optional<std::int64_t> scan_date(Scanner* scanner) {
  const int year = scanner->digits(4);
  scanner->one_of("-");
  const int month = scanner->digits(2);
  scanner->one_of("-");
  return start_of_day(year, month, scanner->digits(2));
}

std::optional<std::int64_t> scan_time(Scanner* scanner) {
  const int hour = scanner->digits(2);
  scanner->one_of(":");
  const int minute = scanner->digits(2);
  scanner->one_of(":");
  const int second = scanner->digits(2);
  scanner->skip_fraction();
  return seconds_of(hour, minute, second);
}

std::optional<std::int64_t> scan_offset(Scanner* scanner) {
  const char sign = scanner->one_of("Zz+-");
  if (sign != '+' && sign != '-') return 0;
  const int hour = scanner->digits(2);
  scanner->one_of(":");
  const auto offset = seconds_of(hour, scanner->digits(2), 0);
  return offset && sign == '-' ? -*offset : offset;
}

std::optional<std::int64_t> parse_seconds(const std::string& text) {
  std::int64_t seconds = 0;
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, seconds);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return seconds;
}

}  // namespace

std::optional<std::int64_t> parse_time(const std::string& text) {
  const auto seconds = parse_seconds(text);
  if (seconds) return seconds;
  Scanner scanner(text);
  const auto date = scan_date(&scanner);
  scanner.one_of("Tt ");
  const auto time = scan_time(&scanner);
  const auto offset = scan_offset(&scanner);
  if (!scanner.done() || !date || !time || !offset) return std::nullopt;
  return *date + *time - *offset;
}

}  // namespace cli
