#include "cli/format.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <ctime>

namespace cli {
namespace {

constexpr std::uint64_t kLastSecondOfYear9999 = 253402300799;
constexpr std::int64_t kFirstSecondOfYear0 = -62167219200;

// Of years from 0 to 9999.
std::string text_of(std::time_t time) {
  std::tm parts = {};
  gmtime_r(&time, &parts);
  return fmt::format("{:04}-{:02}-{:02}T{:02}:{:02}:{:02}Z", parts.tm_year + 1900, parts.tm_mon + 1,
                     parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
}

char type_letter(int type) {
  if (type == PO_TYPE_DIR) return 'd';
  return type == PO_TYPE_FILE ? '-' : '?';
}

// Set-user, set-group and sticky bits stand in the place of the "x" of their class.
void mark(char& place, bool set, char with_x, char without_x) {
  if (set) place = place == 'x' ? with_x : without_x;
}

}  // namespace

std::string utc_time(std::uint64_t seconds) {
  return seconds > kLastSecondOfYear9999 ? "-" : text_of(static_cast<std::time_t>(seconds));
}

std::int64_t signed_time(std::uint64_t seconds) { return static_cast<std::int64_t>(seconds); }

std::string file_time(std::uint64_t seconds) {
  const std::int64_t time = signed_time(seconds);
  return time < 0 && time >= kFirstSecondOfYear0 ? text_of(time) : utc_time(seconds);
}

std::string counted(std::uint64_t count, const std::string& thing) {
  return std::to_string(count) + " " + thing + (count == 1 ? "" : "s");
}

std::string duration(std::uint64_t seconds) {
  struct Unit {
    std::uint64_t seconds;
    char letter;
  };
  constexpr std::array<Unit, 4> kUnits = {{{86400, 'd'}, {3600, 'h'}, {60, 'm'}, {1, 's'}}};
  std::size_t largest = 0;
  while (largest + 1 < kUnits.size() && seconds < kUnits[largest].seconds) ++largest;
  std::string text;
  for (std::size_t i = largest; i < std::min(largest + 2, kUnits.size()); ++i) {
    if (i > largest) text += ' ';
    text += std::to_string(seconds / kUnits[i].seconds) + kUnits[i].letter;
    seconds %= kUnits[i].seconds;
  }
  return text;
}

std::string mode_letters(const refhost::RecordFields& fields) {
  std::string letters = "?rwxrwxrwx";
  letters[0] = type_letter(fields.type);
  for (std::size_t bit = 0; bit < 9; ++bit) {
    if ((fields.mode >> (8 - bit) & 1U) == 0) letters[bit + 1] = '-';
  }
  mark(letters[3], (fields.mode & 04000U) != 0, 's', 'S');
  mark(letters[6], (fields.mode & 02000U) != 0, 's', 'S');
  mark(letters[9], (fields.mode & 01000U) != 0, 't', 'T');
  return letters;
}

std::string flag_letters(std::uint32_t special_flags) {
  std::string letters = "--";
  if ((special_flags & SF_IMMUTABLE) != 0) letters[0] = 'i';
  if ((special_flags & SF_RETENTION_LOCK) != 0) letters[1] = 'r';
  return letters;
}

}  // namespace cli
