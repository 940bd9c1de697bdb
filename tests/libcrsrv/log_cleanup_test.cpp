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

class LogCleanup : public testing::Test {
 protected:
  LogCleanup() {
    const struct {
      const char* path;
      time_t age;
      const char* content;
    } files[] = {
        {"old", 10 * kDay + 1, "x"},         {"cutoff", 10 * kDay, "x"},
        {"empty", 3 * kDay + 1, ""},         {"empty_cutoff", 3 * kDay, ""},
        {".hidden", 99 * kDay, "x"},         {".dir/old", 99 * kDay, "x"},
        {"abc/old", 99 * kDay, "x"},         {"abc/young", 1, "x"},
        {"deep/er/abc.old", 99 * kDay, "x"}, {"deep/er/old", 99 * kDay, "x"},
    };
    for (const auto& file : files) add(file.path, file.age, file.content);
    fs::create_directory(dir.path("void"));
    fs::create_symlink(dir.path(".dir/old"), dir.path("link"));
    touch("link", 99 * kDay);
  }

  void touch(const std::string& name, time_t age) const {
    const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, dir.path(name).c_str(), times, AT_SYMLINK_NOFOLLOW), 0);
  }
  void add(const std::string& name, time_t age, const std::string& content) const {
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
  Paths removed_by(const std::function<void(const char* path)>& cleanup) const {
    Paths gone = paths();
    cleanup(dir.path().c_str());
    for (const std::string& kept : paths()) gone.erase(kept);
    return gone;
  }

  const TempDir dir;
};

struct CleanupCase {
  const char* name;
  std::function<void(const char* path)> cleanup;
  Paths removed;
};

class LogCleanupTable : public LogCleanup, public testing::WithParamInterface<CleanupCase> {};

TEST_P(LogCleanupTable, RemovesExactly) {
  EXPECT_EQ(removed_by(GetParam().cleanup), GetParam().removed);
}

const Paths kAllOld = {"old",  "abc/old", "deep/er/abc.old", "deep/er/old", "deep/er",
                       "deep", "void"};

const CleanupCase kCases[] = {
    {"ByAge", [](const char* path) { SDCleanLogs(path, 10, 1, 0, nullptr); }, kAllOld},
    {"TopOnly", [](const char* path) { SDCleanLogs(path, 10, 0, 3, nullptr); }, {"old", "empty"}},
    {"EmptyOnly", [](const char* path) { SDCleanLogs(path, 0, 1, 3, nullptr); }, {"empty", "void"}},
    {"NoLimit", [](const char* path) { SDCleanLogs(path, -1, 1, 0, nullptr); }, {"void"}},
    {"FarLimit", [](const char* path) { SDCleanLogs(path, INT_MAX, 0, INT_MAX, nullptr); }, {}},
    {"ByDirectory",
     [](const char* path) {
       SDCleanLogs(path, 0, 1, 0, [](const char* name) { return int{name == std::string("abc")}; });
     },
     {"abc/old", "void"}},
    {"ByKey",
     [](const char* path) { SDCleanKeyLogs(path, "/abc", 10, 1); },
     {"abc/old", "deep/er/abc.old", "void"}},
    {"ByKeyTopOnly", [](const char* path) { SDCleanKeyLogs(path, "old", 10, 0); }, {"old"}},
    {"ByKeyWithoutLimit", [](const char* path) { SDCleanKeyLogs(path, "", 0, 1); }, {}},
};

INSTANTIATE_TEST_SUITE_P(, LogCleanupTable, testing::ValuesIn(kCases),
                         [](const auto& test) { return test.param.name; });

TEST_F(LogCleanup, DoesNotFollowALinkThatTookTheDirectorysPlace) {
  static std::string place, target;
  const TempDir outside;
  place = dir.path("abc");
  target = outside.path("abc");
  fs::rename(place, target);
  fs::create_directory(place);
  SDCleanLogs(dir.path().c_str(), 10, 1, 0, [](const char* name) {
    if (place == fs::path(place).replace_filename(name)) {
      fs::remove(place);
      fs::create_symlink(target, place);
    }
    return 10;
  });
  EXPECT_TRUE(fs::exists(outside.path("abc/old")));
}

// Cut at the longest path, the path of the file would be that of its own directory.
TEST_F(LogCleanup, PassesOverWhatLiesTooDeep) {
  std::size_t length = dir.path("abc").size();
  int fd = open(dir.path("abc").c_str(), O_DIRECTORY);
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
  const timespec times[2] = {{0, 0}, {0, 0}};
  ASSERT_EQ(utimensat(fd, "file", times, 0), 0);
  SDCleanLogs(dir.path().c_str(), 10, 1, 1, nullptr);
  SDCleanKeyLogs(dir.path().c_str(), "", 10, 1);
  EXPECT_EQ(faccessat(fd, "file", F_OK, 0), 0);
  close(fd);
}

TEST_F(LogCleanup, TracesWhatItDoes) {
  LogCapture log(refhost::LogLevel::Trace);
  const auto expect = [&](const std::string& line) {
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, line);
  };
  const std::string root = dir.path();
  SDCleanLogs(root.c_str(), 10, 0, 0, nullptr);
  SDCleanKeyLogs((root + "/abc").c_str(), "old", 10, 0);
  SDCleanLogs((root + "/none").c_str(), 1, 0, 0, nullptr);
  SDCleanKeyLogs((root + "/none").c_str(), "k", 1, 0);
  expect("SDCleanLogs: " + root + ", maxdays=10");
  expect(root + "/old: expired");
  expect("SDCleanKeyLogs: path=" + root + "/abc, key=old, maxdays=10, descend=0");
  expect("SDCleanKeyLogs: " + root + "/abc/old: expired");
  expect("SDCleanKeyLogs: " + root + "/abc/young: skipping");
  expect("SDCleanLogs: " + root + "/none, maxdays=1");
  expect(root + "/none: No such file or directory");
  expect("SDCleanKeyLogs: path=" + root + "/none, key=k, maxdays=1, descend=0");
  expect("SDCleanKeyLogs: " + root + "/none: No such file or directory");
  EXPECT_TRUE(log.lines().empty());
}

}  // namespace
