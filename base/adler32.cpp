#include "base/adler32.h"

#include <algorithm>

namespace base {

namespace {

constexpr std::uint32_t kModulus = 65521;
constexpr std::size_t kStep = 16;
// The most bytes whose sums stay within 32 bits before they must be reduced; a multiple of kStep.
constexpr std::size_t kBlock = 5552;

struct Sums {
  std::uint32_t a;
  std::uint32_t b;

  void add(const unsigned char* bytes, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
      a += bytes[i];
      b += a;
    }
  }

  void reduce() {
    a %= kModulus;
    b %= kModulus;
  }
};

}  // namespace

std::uint32_t adler32(std::uint32_t adler, const void* data, std::size_t size) {
  Sums sums{adler & 0xFFFF, adler >> 16};
  const auto* bytes = static_cast<const unsigned char*>(data);
  while (size > 0) {
    const std::size_t block = std::min(size, kBlock);
    std::size_t done = 0;
    // The constant count lets the compiler unroll the sixteen additions.
    for (; done + kStep <= block; done += kStep) sums.add(bytes + done, kStep);
    sums.add(bytes + done, block - done);
    sums.reduce();
    bytes += block;
    size -= block;
  }
  return sums.b << 16 | sums.a;
}

}  // namespace base
