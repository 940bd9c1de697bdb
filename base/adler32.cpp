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

  // As add, for whole steps. Each place in a step has sums of its own, so that no addition waits
  // for the one before it and compilers take several at once.
  void add_steps(const unsigned char* bytes, std::size_t steps) {
    std::uint32_t sum[kStep] = {};
    std::uint32_t earlier[kStep] = {};  // what `sum` was at each step before, added up
    for (const unsigned char* const end = bytes + steps * kStep; bytes != end; bytes += kStep) {
      for (std::size_t i = 0; i < kStep; ++i) {
        earlier[i] += sum[i];
        sum[i] += bytes[i];
      }
    }
    b += static_cast<std::uint32_t>(steps * kStep) * a;
    for (std::uint32_t i = 0; i < kStep; ++i) {
      a += sum[i];
      b += std::uint32_t{kStep} * earlier[i] + (std::uint32_t{kStep} - i) * sum[i];
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
    const std::size_t rest = block % kStep;
    sums.add_steps(bytes, block / kStep);
    sums.add(bytes + (block - rest), rest);
    sums.reduce();
    bytes += block;
    size -= block;
  }
  return sums.b << 16 | sums.a;
}

}  // namespace base
