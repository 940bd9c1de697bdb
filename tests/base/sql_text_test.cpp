#include "base/sql_text.h"

#include <gtest/gtest.h>

namespace {

TEST(SqlText, doubles_quotes_and_touches_nothing_else) {
  EXPECT_EQ(base::sql_escaped("it's"), "it''s");
  EXPECT_EQ(base::sql_escaped("x' OR '1'='1"), "x'' OR ''1''=''1");
  EXPECT_EQ(base::sql_escaped("''"), "''''");
  EXPECT_EQ(base::sql_escaped("a\"b\\%\n\xFF"), "a\"b\\%\n\xFF");
  EXPECT_EQ(base::sql_escaped(""), "");
}

}  // namespace
