#include "host/files.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(WholeFile, KeepsItsPermissionsAndTakesThePlaceOfALinkButNotOfItsTarget) {
  const TempDir dir;
  const std::string file = dir.path(std::string(255, 'n')), text(200'001, '\0');
  write_file(file, "old");
  fs::permissions(file, fs::perms::owner_all);
  EXPECT_EQ(wa_writefile(file.c_str(), text, false) + wa_writefile(file.c_str(), "b", true), 0);
  std::string content;
  EXPECT_EQ(wa_readfile(file.c_str(), &content), 0);
  EXPECT_EQ(content, text + "b");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
  fs::create_symlink(file, dir.path("link"));
  EXPECT_EQ(wa_writefile(dir.path("link").c_str(), "new", false), 0);
  EXPECT_EQ(read_file(file), content);
}

TEST(Tree, IsMadeWithItsParentsAndDeletedWithoutFollowingLinks) {
  const TempDir dir;
  const auto make = [&](const char* name) { return wa_createtree(dir.path(name).c_str(), 0700); };
  const auto erase = [&](const char* name) { return wa_deletetree(dir.path(name).c_str()); };
  EXPECT_EQ(make("tree//sub/./deep/") + make("tree/sub"), 0);
  write_file(dir.path("tree/file"), "");
  write_file(dir.path("outside/kept"), "");
  fs::create_directory_symlink(dir.path("outside"), dir.path("tree/sub/out"));
  EXPECT_EQ(make("tree/file/a") + make("tree/sub/out/new"), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(erase("tree/sub/out") + erase("tree/sub/out/kept"), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(erase("tree/sub/..") + wa_deletetree("/") + wa_deletetree(""), 3 * CR_STATUS_BAD_ARG);
  EXPECT_TRUE(fs::exists(dir.path("tree/sub/deep")));
  EXPECT_EQ(erase("tree/"), 0);
  EXPECT_TRUE(fs::exists(dir.path("outside/kept")));
}

}  // namespace
