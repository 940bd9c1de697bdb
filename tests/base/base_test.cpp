#include <gtest/gtest.h>

#include "base/adler32.h"
#include "base/sql_text.h"

namespace {

TEST(Adler32, is_exact_for_any_length_and_continues_where_it_stopped) {
  const auto adler = [](const std::string& text, std::uint32_t start = base::kAdler32Start) {
    return base::adler32(start, text.data(), text.size());
  };
  EXPECT_EQ(adler("pedia", adler("Wiki")), 0x11E60398U);
  EXPECT_EQ(adler(std::string(5552, '\xFF')), 0xF18F9B8CU);
  EXPECT_EQ(adler(std::string(5553, '\xFF')), 0x8E299C8BU);
}

TEST(SqlText, doubles_quotes_and_touches_nothing_else) {
  EXPECT_EQ(base::sql_escaped("x' OR '1\"\\%\n\xFF'"), "x'' OR ''1\"\\%\n\xFF''");
}

}  // namespace
