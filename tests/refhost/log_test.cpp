#include "host/log.h"

#include <gtest/gtest.h>

#include <fstream>
#include <regex>
#include <thread>

#include "refhost/control.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(LogFile, GetsWholeLinesOfItsLevelAndNoneThatANameForged) {
  const TempDir dir;
  ASSERT_EQ(refhost::log_to_file(dir.path("log").c_str()), CR_STATUS_OK);
  ErrorA(21, "name %s\n", "a\nb\r\x1b[0m\x7f\\x0A");
  refhost::set_log_level(refhost::LogLevel::Warning);
  InfoA(0, "not important enough");
  const std::string text(500, 'x');
  const auto log_many = [&] {
    for (int i = 0; i < 100; ++i) WarningA(CR_STATUS_NONE, "[%s]", text.c_str());
  };
  std::thread other(log_many);
  log_many();
  other.join();
  const std::string ends[] = {
      R"(ERROR thread=\d+ status=21 name a\\x0Ab\\x0D\\x1B\[0m\\x7F\\\\x0A)",
      R"(WARNING thread=\d+ status=- \[x{500}\])"};
  std::ifstream in(dir.path("log"));
  int lines = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    const std::regex form(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )" + ends[std::min(lines, 1)]);
    EXPECT_TRUE(std::regex_match(line, form)) << line;
  }
  EXPECT_EQ(lines, 201);
  refhost::log_to_stderr();
}

}  // namespace
