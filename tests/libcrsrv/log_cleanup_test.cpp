#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <ctime>
#include <functional>

#include "libcrsrv/common.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr time_t kNow = 1'700'000'000;
constexpr time_t kDay = 86400;

// Happen once: before a directory is entered, and while a file's age is told.
std::function<void()> on_descent, on_age;

void happen(std::function<void()>& action) {
  if (action) std::exchange(action, nullptr)();
}

int ten_for_abc(const char* name) {
  happen(on_descent);
  return name == std::string("abc") ? 10 : 0;
}

}  // namespace

extern "C" time_t time(time_t*) noexcept {
  happen(on_age);
  return kNow;
}

namespace {

namespace fs = std::filesystem;

void add(const std::string& file, time_t age, const std::string& content = "x") {
  write_file(file, content);
  const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

TEST(LogCleanup, RemovesExactlyWhatIsOverItsLimit) {
  const TempDir dir;
  for (const char* name : {".hidden", ".dir/old", "abc/old", "key/er/old", "deep/er/old"}) {
    add(dir.path(name), 99 * kDay);
  }
  add(dir.path("old"), 10 * kDay + 1);
  add(dir.path("cutoff"), 10 * kDay);
  add(dir.path("empty"), 3 * kDay + 1, "");
  fs::create_symlink(".dir", dir.path("link"));
  auto expected = snapshot(dir.path());
  const auto expect_gone = [&](const std::vector<const char*>& names) {
    for (const char* name : names) EXPECT_EQ(expected.erase(dir.path(name)), 1U) << name;
    EXPECT_EQ(snapshot(dir.path()), expected);
  };
  const char* const root = dir.path().c_str();
  LogCapture log(refhost::LogLevel::Trace);
  SDCleanKeyLogs(root, "", 0, 1);
  EXPECT_TRUE(log.lines().empty());
  SDCleanKeyLogs(dir.path("gone").c_str(), "k", 1, 0);
  SDCleanLogs(dir.path("gone").c_str(), 1, 0, 0, nullptr);
  SDCleanLogs(root, INT_MAX, 0, INT_MAX, nullptr);
  expect_gone({});
  SDCleanLogs(root, 0, 1, 0, ten_for_abc);
  expect_gone({"abc/old", "abc"});
  SDCleanKeyLogs(root, "/key", 10, 1);
  expect_gone({"key/er/old", "key/er", "key"});
  SDCleanLogs(root, 10, 0, 3, nullptr);
  expect_gone({"old", "empty"});
  SDCleanLogs(root, 10, 1, 0, nullptr);
  expect_gone({"deep/er/old", "deep/er", "deep"});
  for (const std::string& line :
       {"SDCleanKeyLogs: path=" + dir.path("gone") + ", key=k, maxdays=1, descend=0",
        "SDCleanKeyLogs: " + dir.path("gone: No such file or directory"),
        "SDCleanLogs: " + dir.path("gone, maxdays=1"), dir.path("gone: No such file or directory"),
        dir.path("abc/old: expired"), "SDCleanKeyLogs: " + dir.path("key/er/old: expired"),
        "SDCleanKeyLogs: " + dir.path("old: skipping")}) {
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, line);
  }
}

TEST(LogCleanup, DoesNotFollowALinkThatTookTheDirectorysPlace) {
  for (std::function<void()>* const when : {&on_descent, &on_age}) {
    const TempDir dir, outside;
    for (const TempDir* in : {&dir, &outside}) add(in->path("abc/old"), 99 * kDay);
    *when = [&] {
      fs::rename(dir.path("abc"), outside.path("aside"));
      fs::create_symlink(outside.path("abc"), dir.path("abc"));
    };
    SDCleanLogs(dir.path().c_str(), 10, 1, 0, ten_for_abc);
    EXPECT_TRUE(fs::is_symlink(dir.path("abc")) && fs::exists(outside.path("abc/old")));
  }
}

}  // namespace
