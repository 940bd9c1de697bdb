// Adler-32 (RFC 1950), the checksum of catalog rows and of DCID records.
#pragma once

#include <cstddef>
#include <cstdint>

namespace base {

// The checksum of no bytes, where every computation starts.
inline constexpr std::uint32_t kAdler32Start = 1;

// Continues `adler` over `size` more bytes: adler32(adler32(kAdler32Start, a), b) is the checksum
// of a followed by b. `data` may be null when `size` is 0.
std::uint32_t adler32(std::uint32_t adler, const void* data, std::size_t size);

}  // namespace base
