// The lists of containers of a directory, read and computed without the library.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "tests/cli/digests.h"
#include "tests/support/raw_database.h"

using Containers = std::map<std::uint64_t, std::uint64_t>;  // with their bytes

inline Containers containers_of(const std::string& content) {
  constexpr std::size_t kSegment = 4U << 20U;
  Containers found;
  for (std::size_t at = 0; at < content.size(); at += kSegment) {
    const std::string segment = content.substr(at, kSegment);
    std::uint64_t number = 64;
    for (std::size_t i = 0; i < 6; ++i) {
      number += std::uint64_t{sha256(segment)[i]} << (40 - 8 * i);
    }
    found[number] += segment.size();
  }
  return found;
}

inline Containers decoded(const std::string& bytes) {
  const auto number = [&bytes](std::size_t at, std::size_t size) {
    std::uint64_t value = 0;
    EXPECT_LE(at + size, bytes.size());
    std::memcpy(&value, bytes.data() + at, size);
    return value;
  };
  EXPECT_EQ(number(0, 4), 2U);  // version and reserved field
  const std::size_t n = number(4, 4);
  EXPECT_EQ(bytes.size(), 12 + 16 * n);
  EXPECT_EQ(number(8 + 16 * n, 4), plain_adler32(bytes.substr(0, 8 + 16 * n)));
  Containers found;
  std::uint64_t last = 63;
  for (std::size_t i = 0; i < n; ++i) {
    EXPECT_GT(number(8 + 8 * i, 8), last);
    last = number(8 + 8 * i, 8);
    found[last] = number(8 + 8 * (n + i), 8);
  }
  return found;
}

inline std::string unhex(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(text.substr(i, 2), nullptr, 16));
  }
  return bytes;
}

// By POID.
inline std::map<std::string, Containers> lists_of(const std::string& directory) {
  std::map<std::string, Containers> lists;
  for (const auto& row : raw_sql(directory + "/ul.db", "SELECT poid, hex(udcids) FROM utable")) {
    lists[row[0]] = decoded(unhex(row[1]));
  }
  return lists;
}

inline std::map<std::string, Containers> lists_for(const std::vector<std::string>& contents) {
  std::map<std::string, Containers> lists;
  for (const std::string& content : contents) lists[sha256_hex(content)] = containers_of(content);
  return lists;
}
