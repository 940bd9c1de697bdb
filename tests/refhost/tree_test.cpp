#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "host/files.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

void make_file(const std::string& path) { ASSERT_EQ(wa_writefile(path.c_str(), "x", false), 0); }

TEST(CreateTree, MakesMissingParentsWithTheMode) {
  const TempDir dir;
  EXPECT_EQ(wa_createtree(dir.path("a//b/./c/").c_str(), 0700), 0);
  EXPECT_EQ(wa_createtree(dir.path("a/b/c").c_str(), 0700), 0);
  for (const char* name : {"a", "a/b", "a/b/c"}) {
    EXPECT_EQ(fs::status(dir.path(name)).permissions(), fs::perms::owner_all) << name;
  }
}

TEST(CreateTree, FailsWhereAFileIsInTheWay) {
  const TempDir dir;
  make_file(dir.path("f"));
  EXPECT_EQ(wa_createtree(dir.path("f").c_str(), 0700), CR_STATUS_FAILED);
  EXPECT_EQ(wa_createtree(dir.path("f/a").c_str(), 0700), CR_STATUS_FAILED);
  EXPECT_EQ(wa_createtree("", 0700), CR_STATUS_BAD_ARG);
}

class TreeWithLinks : public testing::Test {
 protected:
  // tree/{file,sub/file,sub/out -> outside,out -> outside} and outside/kept
  void SetUp() override {
    fs::create_directories(dir_.path("tree/sub"));
    fs::create_directory(dir_.path("outside"));
    for (const char* name : {"tree/file", "tree/sub/file", "outside/kept"}) {
      make_file(dir_.path(name));
    }
    fs::create_directory_symlink(dir_.path("outside"), dir_.path("tree/out"));
    fs::create_directory_symlink(dir_.path("outside"), dir_.path("tree/sub/out"));
  }
  void TearDown() override { EXPECT_TRUE(fs::exists(dir_.path("outside/kept"))); }

  TempDir dir_;
};

TEST_F(TreeWithLinks, IsDeletedWithoutFollowingThem) {
  EXPECT_EQ(wa_deletetree(dir_.path("tree/").c_str()), 0);
  EXPECT_FALSE(fs::exists(dir_.path("tree")));
}

TEST_F(TreeWithLinks, LeadsNowhereThroughAPath) {
  fs::create_directory(dir_.path("outside/sub"));
  for (const char* name : {"tree/out", "tree/out/sub", "tree/file"}) {
    EXPECT_EQ(wa_deletetree(dir_.path(name).c_str()), CR_STATUS_FAILED) << name;
  }
  EXPECT_EQ(wa_createtree(dir_.path("tree/out/new").c_str(), 0700), CR_STATUS_FAILED);
  EXPECT_FALSE(fs::exists(dir_.path("outside/new")));
  EXPECT_TRUE(fs::exists(dir_.path("outside/sub")));
}

TEST_F(TreeWithLinks, IsNotDeletedByAPathThatNamesNoChild) {
  for (const std::string& path : {dir_.path("tree/sub/.."), std::string("/"), std::string("."),
                                  std::string(), dir_.path("tree/sub/../.")}) {
    EXPECT_EQ(wa_deletetree(path.c_str()), CR_STATUS_BAD_ARG) << path;
  }
  EXPECT_TRUE(fs::exists(dir_.path("tree/sub/file")));
}

// Far deeper than a path can be long, and than descriptors may be open.
TEST(DeleteTree, IsNotLimitedByDepth) {
  const TempDir dir;
  const std::string name(100, 'd');
  int parent = open(dir.path().c_str(), O_PATH | O_CLOEXEC);
  for (int depth = 0; depth < 2000; ++depth) {
    ASSERT_EQ(mkdirat(parent, name.c_str(), 0700), 0);
    const int child = openat(parent, name.c_str(), O_PATH | O_CLOEXEC);
    close(parent);
    parent = child;
  }
  close(parent);
  rlimit old{};
  getrlimit(RLIMIT_NOFILE, &old);
  const rlimit few{64, old.rlim_max};
  setrlimit(RLIMIT_NOFILE, &few);
  EXPECT_EQ(wa_deletetree(dir.path(name).c_str()), 0);
  setrlimit(RLIMIT_NOFILE, &old);
  EXPECT_FALSE(fs::exists(dir.path(name)));
}

}  // namespace
