#include <gtest/gtest.h>

#include "base/adler32.h"

namespace {

TEST(Adler32, IsExactForAnyLengthAndContinuesWhereItStopped) {
  const std::string text(1000003, '\xFF');
  const std::uint32_t first = base::adler32(base::kAdler32Start, text.data(), 5553);
  EXPECT_EQ(base::adler32(first, text.data(), text.size() - 5553), 0xE395E4BBU);
}

}  // namespace
