// What the library tells about the retention of an entry.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::uint64_t WORM_IMMUTABLE = 1;  // the image is immutable
inline constexpr std::uint64_t WORM_LOCKED = 2;     // its retention lock is still in force

// Shared with the host as it lies in memory. Times are seconds relative to the compliance clock's
// now.
struct tolvfs_worm_info_t {
  std::uint64_t worm_flags;         // WORM_ bits
  std::int64_t ctime_offset;        // creation time minus now
  std::int64_t ctime_offset_again;  // the same value again, intended
  std::int64_t lock_remaining;      // lock minus now; zero or negative once it has expired
  char cdo_ref[1024];               // content fingerprint; no terminator when it fills the field
};

static_assert(sizeof(tolvfs_worm_info_t) == 1056 &&
                  offsetof(tolvfs_worm_info_t, lock_remaining) == 24 &&
                  offsetof(tolvfs_worm_info_t, cdo_ref) == 32,
              "the record's layout is shared with the host");
