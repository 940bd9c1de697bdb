// Digests computed without the library.
#pragma once

#include <fmt/format.h>
#include <openssl/sha.h>

#include <array>
#include <cstdint>
#include <string>

inline std::array<unsigned char, SHA256_DIGEST_LENGTH> sha256(const std::string& content) {
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(reinterpret_cast<const unsigned char*>(content.data()), content.size(), digest.data());
  return digest;
}

inline std::string sha256_hex(const std::string& content) {
  return fmt::format("{:02x}", fmt::join(sha256(content), ""));
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
