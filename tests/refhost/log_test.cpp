#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <fstream>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "host/log.h"
#include "refhost/control.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

using refhost::LogLevel;

class LogFile : public testing::Test {
 protected:
  void SetUp() override { EXPECT_EQ(refhost::log_to_file(file_.c_str()), CR_STATUS_OK); }
  void TearDown() override {
    refhost::log_to_stderr();
    refhost::set_log_level(LogLevel::Info);
  }

  std::vector<std::string> lines() const {
    std::vector<std::string> found;
    std::ifstream in(file_);
    for (std::string line; std::getline(in, line);) found.push_back(line);
    return found;
  }

 private:
  TempDir dir_;
  std::string file_ = dir_.path("log");
};

TEST_F(LogFile, GetsLinesOfItsLevelWithTimeThreadAndStatus) {
  refhost::set_log_level(LogLevel::Trace);
  EXPECT_TRUE(TraceOn());
  ErrorA(21, "e %d", 1);
  WarningA(0, "w");
  InfoA(CR_STATUS_NONE, "i");
  __Trace("t %s", "x");
  refhost::set_log_level(LogLevel::Warning);
  EXPECT_FALSE(TraceOn());
  InfoA(0, "not important enough");
  const char* const ends[] = {R"(ERROR thread=\d+ status=21 e 1)",
                              R"(WARNING thread=\d+ status=0 w)", R"(INFO thread=\d+ status=- i)",
                              R"(TRACE thread=\d+ status=- t x)"};
  const std::vector<std::string> found = lines();
  ASSERT_EQ(found.size(), 4U);
  for (std::size_t i = 0; i < found.size(); ++i) {
    const std::regex form(std::string(R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )") + ends[i]);
    EXPECT_TRUE(std::regex_match(found[i], form)) << found[i];
  }
}

TEST_F(LogFile, KeepsANameFromForgingALine) {
  ErrorA(4, "name %s\n", "a\nb\r\x1b[0m\x7f\\x0A");
  ASSERT_EQ(lines().size(), 1U);
  EXPECT_THAT(lines()[0], testing::EndsWith(R"( name a\x0Ab\x0D\x1B[0m\x7F\\x0A)"));
}

TEST_F(LogFile, DoesNotMixTheLinesOfThreads) {
  const std::string text(5000, 'x');
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&text] {
      for (int i = 0; i < 50; ++i) ErrorA(4, "[%s]", text.c_str());
    });
  }
  for (std::thread& thread : threads) thread.join();
  const std::vector<std::string> found = lines();
  EXPECT_EQ(found.size(), 400U);
  for (const std::string& line : found) {
    EXPECT_THAT(line, testing::EndsWith(" status=4 [" + text + "]"));
  }
}

TEST_F(LogFile, LeavesErrnoAloneEvenWhenItCannotBeWritten) {
  EXPECT_EQ(refhost::log_to_file("/dev/full"), CR_STATUS_OK);
  errno = EEXIST;
  ErrorA(2, "cannot be written");
  EXPECT_EQ(errno, EEXIST);
}

TEST(LogSink, ReceivesMessagesAsTheyAreAndMayThrow) {
  LogCapture log;
  ErrorA(1, "ends in a newline\n");
  log.expect_error(1, "ends in a newline\n");
  refhost::log_to_sink([](const refhost::LogLine&) { throw 1; });
  testing::internal::CaptureStderr();
  ErrorA(9, "x");
  EXPECT_THAT(testing::internal::GetCapturedStderr(),
              testing::HasSubstr("status=9 (message lost)"));
}

}  // namespace
