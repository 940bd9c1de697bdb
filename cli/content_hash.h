// What identifies a content, and where it lies.
#pragma once

#include <openssl/types.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "cli/containers.h"

namespace cli {

struct Content {
  std::string poid;  // SHA-256 in lower-case hexadecimal digits; empty for no content
  std::vector<Segment> segments;
};

// Computes both in one pass, for one content after the other.
class ContentHash {
 public:
  ContentHash();

  void start();
  void add(const unsigned char* bytes, std::size_t count);
  Content finish();

 private:
  struct Free {
    void operator()(EVP_MD* algorithm) const;
    void operator()(EVP_MD_CTX* digest) const;
  };
  using Digest = std::unique_ptr<EVP_MD_CTX, Free>;

  void close_segment();
  void restart(const Digest& digest);

  const std::unique_ptr<EVP_MD, Free> sha256_;
  const Digest whole_;
  const Digest segment_;  // of the segment in work, from the second one on
  std::uint64_t length_ = 0;
  std::vector<Segment> segments_;
};

}  // namespace cli
