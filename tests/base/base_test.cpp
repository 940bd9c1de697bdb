#include <gtest/gtest.h>

#include "base/adler32.h"
#include "base/sql_text.h"

namespace {

TEST(Adler32, is_exact_for_any_length_and_continues_where_it_stopped) {
  const auto adler = [](const std::string& text, std::uint32_t start = base::kAdler32Start) {
    return base::adler32(start, text.data(), text.size());
  };
  EXPECT_EQ(adler("pedia", adler("Wiki")), 0x11E60398U);
  EXPECT_EQ(adler(std::string(1000003, '\xFF')), 0xE395E4BBU);
}

TEST(SqlText, doubles_quotes_and_touches_nothing_else) {
  EXPECT_EQ(base::sql_escaped("x' OR '1\"\\%\n\xFF'"), "x'' OR ''1\"\\%\n\xFF''");
}

}  // namespace
