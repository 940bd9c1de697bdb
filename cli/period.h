// Periods as users write them.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace cli {

// The seconds of "90s", "15m", "6h", "30d" or "2w". None for every other text, for a period of
// zero and for one of 2^63 seconds or more.
std::optional<std::int64_t> parse_period(const std::string& text);

}  // namespace cli
