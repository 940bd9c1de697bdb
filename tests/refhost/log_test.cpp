#include "host/log.h"

#include <gtest/gtest.h>

#include <regex>

#include "refhost/control.h"
#include "tests/support/files.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(LogFile, GetsWholeLinesOfItsLevelAndNoneThatANameForged) {
  const TempDir dir;
  ASSERT_EQ(refhost::log_to_file(dir.path("log").c_str()), CR_STATUS_OK);
  ErrorA(21, "name %s\n", "a\nb\r\x1b[0m\x7f\\x0A");
  InfoA(CR_STATUS_NONE, "told");
  __Trace("not important enough");
  refhost::log_to_stderr();
  const std::string start = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";
  const std::regex lines(start +
                         R"(ERROR thread=\d+ status=21 name a\\x0Ab\\x0D\\x1B\[0m\\x7F\\\\x0A\n)" +
                         start + R"(INFO thread=\d+ status=- told\n)");
  const std::string text = read_file(dir.path("log"));
  EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

}  // namespace
