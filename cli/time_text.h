// Points in time as people write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cli {

// Seconds since the epoch from such a number, or from RFC 3339 ("2026-03-04T05:06:07+01:00"; a
// fraction of a second is dropped). None for anything else.
std::optional<std::int64_t> parse_time(const std::string& text);

}  // namespace cli
