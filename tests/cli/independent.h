// What the catalog holds, read and computed without the library.
#pragma once

#include <fmt/format.h>
#include <openssl/sha.h>

#include <map>
#include <set>

#include "tests/support/raw_database.h"

inline std::string hex(const std::string& bytes) {
  const std::vector<unsigned char> unsigned_bytes(bytes.begin(), bytes.end());
  return fmt::format("{:02x}", fmt::join(unsigned_bytes, ""));
}

inline std::string sha256_hex(const std::string& content) {
  std::string digest(SHA256_DIGEST_LENGTH, '\0');
  SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(),
         reinterpret_cast<unsigned char*>(digest.data()));
  return hex(digest);
}

inline std::uint32_t plain_adler32(const std::string& bytes) {
  std::uint32_t a = 1, b = 0;
  for (const char byte : bytes) {
    a = (a + static_cast<unsigned char>(byte)) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

// The list of a content's containers as it is stored: version, count, containers, their bytes and
// a checksum.
inline std::string list_for(const std::string& content) {
  constexpr std::size_t kSegment = 4U << 20U;
  std::map<std::uint64_t, std::uint64_t> containers;
  for (std::size_t at = 0; at < content.size(); at += kSegment) {
    const std::string segment = content.substr(at, kSegment);
    containers[64 + std::stoull(sha256_hex(segment).substr(0, 12), nullptr, 16)] += segment.size();
  }
  std::string bytes;
  const auto append = [&bytes](std::uint64_t value, std::size_t size) {
    bytes.append(reinterpret_cast<const char*>(&value), size);
  };
  append(2, 4);
  append(containers.size(), 4);
  for (const auto& entry : containers) append(entry.first, 8);
  for (const auto& entry : containers) append(entry.second, 8);
  append(plain_adler32(bytes), 4);
  return hex(bytes);
}

// The lists of a directory are those of these contents.
inline void expect_lists(const std::string& file, const std::vector<std::string>& contents) {
  std::set<RawRows::value_type> lists;
  for (const auto& content : contents) lists.insert({sha256_hex(content), list_for(content)});
  const std::string all = "SELECT poid, lower(hex(udcids)) FROM utable ORDER BY poid";
  EXPECT_EQ(raw_sql(file, all), RawRows(lists.begin(), lists.end()));
}
