// The list of a DCID record in memory and on disk: what its construction, its binary form and its
// store share.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>

// Bytes of one entry, its identifier and its size.
inline constexpr std::uint64_t kUdcidEntrySize = 16;

inline std::uint64_t udcid_list_size(std::uint32_t n) { return n * kUdcidEntrySize; }

// The binary form: version, reserved and count, then the list, then the checksum.
inline constexpr std::uint64_t kUdcidListAt = 8;
inline constexpr std::uint64_t kUdcidChecksumSize = 4;
inline constexpr std::uint64_t kUdcidFrameSize = kUdcidListAt + kUdcidChecksumSize;

inline std::uint64_t udcid_binary_size(std::uint32_t n) {
  return kUdcidFrameSize + udcid_list_size(n);
}

// As the 32 bits that the texts about memory print; the largest number stands for all beyond.
inline unsigned int printable_size(std::uint64_t size) {
  constexpr std::uint64_t kLargest = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(std::min(size, kLargest));
}

// A list of n entries, not yet written, from `malloc`'s heap, the caller's to free. Null, after a
// log line in the name of `operation`, when there is no memory; n = 0 needs a buffer, too.
std::uint64_t* allocated_udcid_list(const char* operation, std::uint32_t n);

// Reads a number that is aligned to nothing, as callers' buffers may be.
template <typename Number>
Number number_at(const unsigned char* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}
