#include <gtest/gtest.h>

#include "base/adler32.h"
#include "base/sql_text.h"

namespace {

using base::sql_escaped;

std::uint32_t adler_of(const std::string& text) {
  return base::adler32(base::kAdler32Start, text.data(), text.size());
}

TEST(Adler32, is_exact_for_any_length_and_continues_where_it_stopped) {
  EXPECT_EQ(adler_of(""), 1U);
  EXPECT_EQ(adler_of("Wikipedia"), 0x11E60398U);
  EXPECT_EQ(base::adler32(adler_of("Wiki"), "pedia", 5), 0x11E60398U);
  EXPECT_EQ(adler_of(std::string(5552, '\xFF')), 0xF18F9B8CU);
  EXPECT_EQ(adler_of(std::string(5553, '\xFF')), 0x8E299C8BU);
  EXPECT_EQ(adler_of(std::string(1000003, '\xFF')), 0xE395E4BBU);
}

TEST(SqlText, doubles_quotes_and_touches_nothing_else) {
  EXPECT_EQ(sql_escaped("x' OR '1'='1"), "x'' OR ''1''=''1");
  EXPECT_EQ(sql_escaped("a\"b\\%\n\xFF"), "a\"b\\%\n\xFF");
}

}  // namespace
