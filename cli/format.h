// How values of entries are written for people.
#pragma once

#include <cstdint>
#include <string>

#include "refhost/record.h"

namespace cli {

// Seconds since the epoch as "2026-03-04T05:06:07Z"; "-" beyond the year 9999.
std::string utc_time(std::uint64_t seconds);

// The same for the time of a file, which may lie before 1970: such times are stored modulo 2^64.
std::string file_time(std::uint64_t seconds);
std::int64_t signed_time(std::uint64_t seconds);

// "1 list", "2 lists".
std::string counted(std::uint64_t count, const std::string& thing);

// A period by its two largest units: "89d 23h", "5m 0s", "7s".
std::string duration(std::uint64_t seconds);

// "drwxr-xr-x", its first letter after the record's type.
std::string mode_letters(const refhost::RecordFields& fields);

// "i" for an entry of an immutable image and "r" for one with a retention lock, each "-" otherwise.
std::string flag_letters(std::uint32_t special_flags);

}  // namespace cli
