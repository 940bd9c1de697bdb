#include "cli/content_hash.h"

#include <openssl/evp.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace cli {
namespace {

void require(bool done) {
  if (!done) throw std::runtime_error("SHA-256 is not available");
}

Sha256 finished(EVP_MD_CTX* digest) {
  Sha256 hash{};
  require(EVP_DigestFinal_ex(digest, hash.data(), nullptr) == 1);
  return hash;
}

std::string hexadecimal(const Sha256& hash) {
  constexpr const char* kDigits = "0123456789abcdef";
  std::string text;
  text.reserve(2 * hash.size());
  for (const unsigned char byte : hash) {
    text += kDigits[byte >> 4];
    text += kDigits[byte & 0xf];
  }
  return text;
}

}  // namespace

void ContentHash::Free::operator()(EVP_MD* algorithm) const { EVP_MD_free(algorithm); }
void ContentHash::Free::operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }

// The algorithm is looked up once: looking takes a lock that all threads share.
ContentHash::ContentHash()
    : sha256_(EVP_MD_fetch(nullptr, "SHA256", nullptr)),
      whole_(EVP_MD_CTX_new()),
      segment_(EVP_MD_CTX_new()) {
  require(sha256_ && whole_ && segment_);
}

void ContentHash::restart(const Digest& digest) {
  require(EVP_DigestInit_ex(digest.get(), sha256_.get(), nullptr) == 1);
}

void ContentHash::start() {
  restart(whole_);
  length_ = 0;
  segments_.clear();
}

void ContentHash::add(const unsigned char* bytes, std::size_t count) {
  while (count > 0) {
    const std::uint64_t filled = length_ % kSegmentSize;
    if (filled == 0 && length_ != 0) {
      close_segment();
      restart(segment_);
    }
    const auto part =
        static_cast<std::size_t>(std::min<std::uint64_t>(count, kSegmentSize - filled));
    require(EVP_DigestUpdate(whole_.get(), bytes, part) == 1);
    if (length_ >= kSegmentSize) require(EVP_DigestUpdate(segment_.get(), bytes, part) == 1);
    length_ += part;
    bytes += part;
    count -= part;
  }
}

// The first segment is all there is so far, so it needs no hashing of its own.
void ContentHash::close_segment() {
  if (length_ <= kSegmentSize) {
    require(EVP_MD_CTX_copy_ex(segment_.get(), whole_.get()) == 1);
  }
  const std::uint64_t before = segments_.size() * kSegmentSize;
  segments_.push_back({container_of(finished(segment_.get())), length_ - before});
}

Content ContentHash::finish() {
  if (length_ == 0) return {};
  close_segment();
  return {hexadecimal(finished(whole_.get())), std::exchange(segments_, {})};
}

}  // namespace cli
