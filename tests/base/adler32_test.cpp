#include "base/adler32.h"

#include <gtest/gtest.h>

#include <string>

namespace {

using base::adler32;
using base::kAdler32Start;

std::uint32_t of(const std::string& text) {
  return adler32(kAdler32Start, text.data(), text.size());
}

// One byte at a time, reduced at each: slow and plainly right.
std::uint32_t by_definition(const std::string& text) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char c : text) {
    a = (a + static_cast<unsigned char>(c)) % 65521;
    b = (b + a) % 65521;
  }
  return b << 16 | a;
}

TEST(Adler32, gives_the_published_values) {
  EXPECT_EQ(of(""), 1U);
  EXPECT_EQ(of("a"), 0x00620062U);
  EXPECT_EQ(of("abc"), 0x024D0127U);
  EXPECT_EQ(of("Wikipedia"), 0x11E60398U);
}

TEST(Adler32, stays_exact_around_every_step_and_reduction) {
  for (const std::size_t size : {15U, 16U, 17U, 5551U, 5552U, 5553U, 11104U, 11105U, 1000003U}) {
    const std::string largest(size, '\xFF');
    EXPECT_EQ(of(largest), by_definition(largest)) << size;
  }
}

TEST(Adler32, continues_where_it_stopped) {
  const std::string text(6000, '\x9A');
  for (const std::size_t cut : {0U, 1U, 5552U, 6000U}) {
    const std::uint32_t head = adler32(kAdler32Start, text.data(), cut);
    EXPECT_EQ(adler32(head, text.data() + cut, text.size() - cut), of(text)) << cut;
  }
  EXPECT_EQ(adler32(of(text), nullptr, 0), of(text));
}

}  // namespace
