#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <ctime>
#include <fstream>
#include <functional>
#include <set>

#include "libcrsrv/common.h"
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

}  // namespace
