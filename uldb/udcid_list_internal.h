// The list of a DCID record in memory: what its construction and its binary form share.
#pragma once

#include <cstdint>
#include <cstring>

// Bytes of one entry, its identifier and its size.
inline constexpr std::uint64_t kUdcidEntrySize = 16;

inline std::uint64_t udcid_list_size(std::uint32_t n) { return n * kUdcidEntrySize; }

// A zeroed list of n entries from `malloc`'s heap, the caller's to free. Null, after a log line in
// the name of `operation`, when there is no memory; n = 0 never lacks it.
std::uint64_t* allocated_udcid_list(const char* operation, std::uint32_t n);

// Reads a number that is aligned to nothing, as callers' buffers may be.
template <typename Number>
Number number_at(const unsigned char* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}
