#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>

#include "libcrsrv/common.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {
constexpr time_t kNow = 1'700'000'000;
constexpr time_t kDay = 86400;
}  // namespace

extern "C" time_t time(time_t*) noexcept { return kNow; }

namespace {

namespace fs = std::filesystem;
using Paths = std::set<std::string>;

// A fresh tree of logs of known ages.
struct Tree {
  Tree() {
    add("old", 10 * kDay + 1);
    add("cutoff", 10 * kDay);
    add("empty", 3 * kDay + 1, "");
    add("empty_cutoff", 3 * kDay, "");
    add("abc/young", 1);
    for (const char* name : {".hidden", ".dir/old", "abc/old", "deep/er/abc.old", "deep/er/old"}) {
      add(name, 99 * kDay);
    }
    fs::create_directory(dir.path("void"));
    fs::create_symlink(dir.path(".dir/old"), dir.path("link"));
    touch("link", 99 * kDay);
  }

  void touch(const std::string& name, time_t age) const {
    const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, dir.path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  void add(const std::string& name, time_t age, const std::string& content = "x") const {
    fs::create_directories(fs::path(dir.path(name)).parent_path());
    std::ofstream(dir.path(name)) << content;
    touch(name, age);
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

int ten_for_abc(const char* name) { return name == std::string("abc") ? 10 : 0; }

TEST(LogCleanup, RemovesExactlyWhatIsOverItsLimit) {
  const struct {
    std::function<void(const char* path)> clean;
    Paths removed;
  } cases[] = {
      {[](const char* path) { SDCleanLogs(path, 10, 1, 0, nullptr); },
       {"old", "abc/old", "deep/er/abc.old", "deep/er/old", "deep/er", "deep", "void"}},
      {[](const char* path) { SDCleanLogs(path, 10, 0, 3, nullptr); }, {"old", "empty"}},
      {[](const char* path) { SDCleanLogs(path, 0, 1, 3, nullptr); }, {"empty", "void"}},
      {[](const char* path) { SDCleanLogs(path, INT_MAX, 0, INT_MAX, nullptr); }, {}},
      {[](const char* path) { SDCleanLogs(path, 0, 1, 0, ten_for_abc); }, {"abc/old", "void"}},
      {[](const char* path) { SDCleanKeyLogs(path, "/abc", 10, 1); },
       {"abc/old", "deep/er/abc.old", "void"}},
      {[](const char* path) { SDCleanKeyLogs(path, "old", 10, 0); }, {"old"}},
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
  static std::string place, target;
  const Tree tree;
  const TempDir outside;
  place = tree.dir.path("abc");
  target = outside.path("abc");
  fs::rename(place, target);
  fs::create_directory(place);
  SDCleanLogs(tree.dir.path().c_str(), 10, 1, 0, [](const char* name) {
    if (name == std::string("abc")) {
      fs::remove(place);
      fs::create_symlink(target, place);
    }
    return 10;
  });
  EXPECT_TRUE(fs::exists(outside.path("abc/old")));
}

// Cut at the longest path, the path of the file would be that of its own directory.
TEST(LogCleanup, PassesOverWhatLiesTooDeep) {
  const Tree tree;
  std::size_t length = tree.dir.path("abc").size();
  int fd = open(tree.dir.path("abc").c_str(), O_DIRECTORY);
  while (length < 4094) {
    const std::size_t rest = 4094 - length;
    const std::string name((rest > 200 ? 100 : rest) - 1, 'd');
    length += 1 + name.size();
    ASSERT_EQ(mkdirat(fd, name.c_str(), 0700), 0);
    const int below = openat(fd, name.c_str(), O_DIRECTORY);
    close(fd);
    fd = below;
  }
  close(openat(fd, "file", O_CREAT | O_WRONLY, 0600));
  const timespec times[2] = {};
  ASSERT_EQ(utimensat(fd, "file", times, 0), 0);
  SDCleanLogs(tree.dir.path().c_str(), 10, 1, 1, nullptr);
  EXPECT_EQ(faccessat(fd, "file", F_OK, 0), 0);
  close(fd);
}

TEST(LogCleanup, TracesWhatItDoes) {
  const Tree tree;
  const std::string root = tree.dir.path();
  LogCapture log(refhost::LogLevel::Trace);
  SDCleanLogs((root + "/deep/er").c_str(), 10, 0, 0, nullptr);
  SDCleanKeyLogs((root + "/abc").c_str(), "young", 10, 0);
  SDCleanKeyLogs((root + "/none").c_str(), "k", 1, 0);
  for (const std::string& line :
       {"SDCleanLogs: " + root + "/deep/er, maxdays=10", root + "/deep/er/old: expired",
        root + "/deep/er/abc.old: expired",
        "SDCleanKeyLogs: path=" + root + "/abc, key=young, maxdays=10, descend=0",
        "SDCleanKeyLogs: " + root + "/abc/old: skipping",
        "SDCleanKeyLogs: " + root + "/abc/young: skipping",
        "SDCleanKeyLogs: path=" + root + "/none, key=k, maxdays=1, descend=0",
        "SDCleanKeyLogs: " + root + "/none: No such file or directory"}) {
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, line);
  }
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
