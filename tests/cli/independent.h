// What the catalog holds, read and computed without the library.
#pragma once

#include <fmt/format.h>
#include <openssl/sha.h>

#include <array>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "tests/support/raw_database.h"

inline std::string sha256_hex(const std::string& content) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest.data());
  return fmt::format("{:02x}", fmt::join(digest, ""));
}

inline std::uint32_t plain_adler32(const std::string& bytes) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char byte : bytes) {
    a = (a + static_cast<unsigned char>(byte)) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

using Containers = std::map<std::uint64_t, std::uint64_t>;  // with their bytes

inline Containers containers_of(const std::string& content) {
  constexpr std::size_t kSegment = 4U << 20U;
  Containers found;
  for (std::size_t at = 0; at < content.size(); at += kSegment) {
    const std::string segment = content.substr(at, kSegment);
    found[64 + std::stoull(sha256_hex(segment).substr(0, 12), nullptr, 16)] += segment.size();
  }
  return found;
}

inline Containers decoded(const std::string& hex) {
  std::string bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
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

using Lists = std::map<std::string, Containers>;  // by POID

inline Lists lists_of(const std::string& directory) {
  Lists lists;
  for (const auto& row : raw_sql(directory + "/ul.db", "SELECT poid, hex(udcids) FROM utable")) {
    lists[row[0]] = decoded(row[1]);
  }
  return lists;
}

inline Lists lists_for(const std::vector<std::string>& contents) {
  Lists lists;
  for (const std::string& content : contents) lists[sha256_hex(content)] = containers_of(content);
  return lists;
}
