// Which data containers a content lies in. docs/uldb.md has an example.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "uldb/udcid_record.h"

namespace cli {

// A content is cut into segments of this size; the last one may be shorter. The SHA-256 of a
// segment says which container it lies in, so that the same bytes lie in the same container
// everywhere, and nothing has to be remembered.
inline constexpr std::uint64_t kSegmentSize = std::uint64_t{4} << 20;

struct Segment {
  std::uint64_t container;
  std::uint64_t bytes;
};

using Sha256 = std::array<unsigned char, 32>;

// 64, below which no container lies, plus the first 48 bits of the hash, read as a big-endian
// number.
std::uint64_t container_of(const Sha256& segment);

// The containers in ascending order, each with the bytes of all its segments.
std::unique_ptr<UDCIDRecord> container_list(const std::vector<Segment>& segments);

}  // namespace cli
