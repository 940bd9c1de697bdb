#include "cli/patrol_log.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <ctime>
#include <limits>
#include <stdexcept>

#include "cli/format.h"
#include "host/log.h"
#include "libcrsrv/common.h"
#include "refhost/control.h"

namespace cli {

std::string patrol_name(const std::string& root) {
  constexpr std::size_t kDigestBytes = 8;
  std::array<unsigned char, EVP_MAX_MD_SIZE> digest{};
  const int hashed =
      EVP_Digest(root.data(), root.size(), digest.data(), nullptr, EVP_sha256(), nullptr);
  if (hashed != 1) throw std::runtime_error("SHA-256 is not available");
  std::string name = "pocatalog-patrol-";
  for (std::size_t i = 0; i < kDigestBytes; ++i) name += fmt::format("{:02x}", digest.at(i));
  return name;
}

cr_status_t PatrolLog::open() const {
  constexpr std::size_t kDate = 10;
  const auto now = static_cast<std::uint64_t>(std::time(nullptr));
  const std::string file = prefix_ + utc_time(now).substr(0, kDate) + ".log";
  return refhost::log_to_file(file.c_str());
}

// The key is the whole beginning of the path, so that it fits this patrol's files only.
void PatrolLog::clean(std::int64_t seconds) const {
  constexpr std::int64_t kDay = 86400;
  constexpr std::int64_t kMost = std::numeric_limits<int>::max();
  const std::int64_t days = std::min(seconds / kDay + (seconds % kDay != 0 ? 1 : 0), kMost);
  SDCleanKeyLogs(directory_.c_str(), prefix_.c_str(), static_cast<int>(days), 0);
}

LogLines::int_type LogLines::overflow(int_type character) {
  if (traits_type::eq_int_type(character, traits_type::eof())) return 0;
  if (character != '\n') {
    line_ += traits_type::to_char_type(character);
    return character;
  }
  if (level_ == error) {
    ErrorA(CR_STATUS_BAD_DATA, "%s", line_.c_str());
  } else {
    WarningA(CR_STATUS_NONE, "%s", line_.c_str());
  }
  line_.clear();
  return character;
}

}  // namespace cli
