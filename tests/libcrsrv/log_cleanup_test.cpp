#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <climits>
#include <ctime>
#include <functional>
#include <set>

#include "libcrsrv/common.h"
#include "tests/support/files.h"
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

struct Tree : TempDir {
  explicit Tree(const std::set<std::string>& old_files) {
    for (const std::string& name : old_files) add(name, 99 * kDay);
  }
  void add(const std::string& name, time_t age, const std::string& content = "x") const {
    write_file(path(name), content);
    const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
    EXPECT_EQ(utimensat(AT_FDCWD, path(name).c_str(), times, 0), 0);
  }
};

TEST(LogCleanup, RemovesExactlyWhatIsOverItsLimit) {
  const struct {
    const char* key;
    int maxdays, descend, emptydays;
    int (*getdays)(const char* name);
    std::set<std::string> removed;
  } cases[] = {
      {nullptr, 10, 1, 0, nullptr, {"old", "abc/old", "deep/er/abc.old", "deep/er", "deep"}},
      {nullptr, 10, 0, 3, nullptr, {"old", "empty"}},
      {nullptr, INT_MAX, 0, INT_MAX, nullptr, {}},
      {nullptr, 0, 1, 0, ten_for_abc, {"abc/old"}},
      {"/abc", 10, 1, 0, nullptr, {"abc/old", "deep/er/abc.old", "deep/er", "deep"}},
      {"", 0, 1, 0, nullptr, {}},
  };
  for (const auto& c : cases) {
    const Tree tree({".hidden", ".dir/old", "abc/old", "deep/er/abc.old"});
    tree.add("old", 10 * kDay + 1);
    tree.add("cutoff", 10 * kDay);
    tree.add("empty", 3 * kDay + 1, "");
    tree.add("abc/young", 1);
    fs::create_symlink(".dir", tree.path("link"));
    auto expected = snapshot(tree.path());
    for (const std::string& name : c.removed) EXPECT_EQ(expected.erase(tree.path(name)), 1U);
    if (c.key != nullptr) {
      SDCleanKeyLogs(tree.path().c_str(), c.key, c.maxdays, c.descend);
    } else {
      SDCleanLogs(tree.path().c_str(), c.maxdays, c.descend, c.emptydays, c.getdays);
    }
    EXPECT_EQ(snapshot(tree.path()), expected) << "case " << &c - cases;
  }
}

TEST(LogCleanup, DoesNotFollowALinkThatTookTheDirectorysPlace) {
  for (std::function<void()>* const when : {&on_descent, &on_age}) {
    const Tree tree({"abc/old"});
    const Tree outside({"abc/old"});
    *when = [&] {
      fs::rename(tree.path("abc"), outside.path("aside"));
      fs::create_symlink(outside.path("abc"), tree.path("abc"));
    };
    SDCleanLogs(tree.path().c_str(), 10, 1, 0, ten_for_abc);
    EXPECT_TRUE(fs::is_symlink(tree.path("abc")));
    EXPECT_TRUE(fs::exists(outside.path("abc/old")));
  }
}

}  // namespace
