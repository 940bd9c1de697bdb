#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>
#include <utility>

#include "libcrsrv/common.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {
constexpr time_t kNow = 1'700'000'000;
constexpr time_t kDay = 86400;
std::function<void()> meanwhile;  // happens once, while a file's age is told
}  // namespace

extern "C" time_t time(time_t*) noexcept {
  if (meanwhile) std::exchange(meanwhile, nullptr)();
  return kNow;
}

namespace {

namespace fs = std::filesystem;
using Paths = std::set<std::string>;

// A fresh tree of logs of known ages.
struct Tree {
  Tree() {
    add("old", 10 * kDay + 1);
    add("cutoff", 10 * kDay);
    add("empty", 3 * kDay + 1, "");
    add("abc/young", 1);
    for (const char* name : {".hidden", ".dir/old", "abc/old", "deep/er/abc.old", "deep/er/old"}) {
      add(name, 99 * kDay);
    }
    fs::create_symlink(dir.path(".dir"), dir.path("link"));
  }
  void add(const std::string& name, time_t age, const std::string& content = "x") const {
    fs::create_directories(fs::path(dir.path(name)).parent_path());
    std::ofstream(dir.path(name)) << content;
    const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, dir.path(name).c_str(), times, 0), 0);
  }
  Paths paths() const {
    Paths found;
    for (const auto& entry : fs::recursive_directory_iterator(dir.path())) {
      found.insert(entry.path().lexically_relative(dir.path()));
    }
    return found;
  }

  const TempDir dir;
};

TEST(LogCleanup, RemovesExactlyWhatIsOverItsLimit) {
  const auto ten_for_abc = [](const char* name) { return name == std::string("abc") ? 10 : 0; };
  const struct {
    std::function<void(const char* path)> clean;
    Paths removed;
  } cases[] = {
      {[](const char* path) { SDCleanLogs(path, 10, 1, 0, nullptr); },
       {"old", "abc/old", "deep/er/abc.old", "deep/er/old", "deep/er", "deep"}},
      {[](const char* path) { SDCleanLogs(path, 10, 0, 3, nullptr); }, {"old", "empty"}},
      {[](const char* path) { SDCleanLogs(path, INT_MAX, 0, INT_MAX, nullptr); }, {}},
      {[&](const char* path) { SDCleanLogs(path, 0, 1, 0, ten_for_abc); }, {"abc/old"}},
      {[](const char* path) { SDCleanKeyLogs(path, "/abc", 10, 1); },
       {"abc/old", "deep/er/abc.old"}},
      {[](const char* path) { SDCleanKeyLogs(path, "", 0, 1); }, {}},
  };
  for (const auto& c : cases) {
    const Tree tree;
    Paths gone = tree.paths();
    c.clean(tree.dir.path().c_str());
    for (const std::string& kept : tree.paths()) gone.erase(kept);
    EXPECT_EQ(gone, c.removed) << "case " << &c - cases;
  }
}

TEST(LogCleanup, DoesNotFollowALinkThatTookTheDirectorysPlace) {
  static bool at_once = false;
  static std::function<void()> swap;
  for (const bool before_descent : {true, false}) {
    const Tree tree;
    const Tree outside;
    const TempDir aside;
    at_once = before_descent;
    swap = [&] {
      fs::rename(tree.dir.path("abc"), aside.path("abc"));
      fs::create_symlink(outside.dir.path("abc"), tree.dir.path("abc"));
    };
    SDCleanLogs(tree.dir.path().c_str(), 10, 1, 0, [](const char* name) {
      if (name == std::string("abc")) at_once ? swap() : std::swap(meanwhile, swap);
      return 10;
    });
    EXPECT_TRUE(fs::is_symlink(tree.dir.path("abc")));
    EXPECT_TRUE(fs::exists(outside.dir.path("abc/old"))) << before_descent;
  }
}

TEST(LogCleanup, PassesOverPathsThatAreTooLong) {
  const TempDir dir;
  const std::string name(255, 'x');
  int at = open(dir.path().c_str(), O_DIRECTORY);
  for (std::size_t length = 0; length < PATH_MAX; length += name.size() + 1) {
    ASSERT_EQ(mkdirat(at, name.c_str(), 0700), 0);
    const int below = openat(at, name.c_str(), O_DIRECTORY);
    close(std::exchange(at, below));
  }
  close(openat(at, "old", O_CREAT | O_WRONLY, 0600));
  const timespec times[2] = {};
  EXPECT_EQ(utimensat(at, "old", times, 0), 0);
  SDCleanLogs(dir.path().c_str(), 1, 1, 1, nullptr);
  EXPECT_EQ(faccessat(at, "old", F_OK, 0), 0);
  close(at);
}

TEST(LogCleanup, TellsWhatItDoesInTraces) {
  const Tree tree;
  const std::string root = tree.dir.path();
  const std::string abc = root + "/abc";
  fs::create_symlink("old", abc + "/link");  // passed over, untold
  LogCapture log(refhost::LogLevel::Trace);
  SDCleanKeyLogs(abc.c_str(), "b", 10, 1);
  SDCleanLogs(root.c_str(), 10, 0, 0, nullptr);
  SDCleanLogs((root + "/none").c_str(), 0, 0, 0, nullptr);
  SDCleanKeyLogs((root + "/none").c_str(), "b", 1, -1);
  EXPECT_THAT(
      log.messages(refhost::LogLevel::Trace),
      testing::UnorderedElementsAre(
          "SDCleanKeyLogs: path=" + abc + ", key=b, maxdays=10, descend=1",
          "SDCleanKeyLogs: " + abc + "/old: expired", "SDCleanKeyLogs: " + abc + "/young: skipping",
          "SDCleanLogs: " + root + ", maxdays=10", root + "/old: expired",
          "SDCleanLogs: " + root + "/none, maxdays=0", root + "/none: No such file or directory",
          "SDCleanKeyLogs: path=" + root + "/none, key=b, maxdays=1, descend=-1",
          "SDCleanKeyLogs: " + root + "/none: No such file or directory"));
}

}  // namespace
