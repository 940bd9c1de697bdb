#include "host/files.h"

#include <gtest/gtest.h>

#include "tests/support/files.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(WholeFile, KeepsItsPermissionsAndTakesThePlaceOfALinkButNotOfItsTarget) {
  const TempDir dir;
  const std::string file = dir.path(std::string(255, 'n'));
  std::string content;
  for (const std::string& text : {std::string("a"), std::string(200'001, '\0')}) {
    EXPECT_EQ(wa_writefile(file.c_str(), text, false), 0);
    fs::permissions(file, fs::perms::owner_all);
    EXPECT_EQ(wa_readfile(file.c_str(), &content), 0);
    EXPECT_EQ(content, text);
  }
  EXPECT_EQ(wa_writefile(file.c_str(), "b", true), 0);
  EXPECT_EQ(read_file(file), content + "b");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
  fs::create_symlink(file, dir.path("link"));
  EXPECT_EQ(wa_writefile(dir.path("link").c_str(), "new", false), 0);
  EXPECT_EQ(read_file(file), content + "b");
}

TEST(Tree, IsMadeWithItsParentsAndDeletedWithoutFollowingLinks) {
  const TempDir dir;
  const auto make = [&](const char* name) { return wa_createtree(dir.path(name).c_str(), 0700); };
  const auto erase = [&](const char* name) { return wa_deletetree(dir.path(name).c_str()); };
  EXPECT_EQ(make("tree//sub/./deep/") + make("tree/sub"), 0);
  write_file(dir.path("tree/file"), "");
  write_file(dir.path("outside/kept"), "");
  fs::create_directory_symlink(dir.path("outside"), dir.path("tree/sub/out"));
  for (const char* name : {"tree/file", "tree/file/a", "tree/sub/out/new"}) {
    EXPECT_EQ(make(name), CR_STATUS_FAILED) << name;
  }
  for (const char* name : {"tree/sub/out", "tree/sub/out/kept", "tree/file"}) {
    EXPECT_EQ(erase(name), CR_STATUS_FAILED) << name;
  }
  EXPECT_EQ(erase("tree/sub/..") + wa_deletetree("/") + wa_deletetree(""), 3 * CR_STATUS_BAD_ARG);
  EXPECT_TRUE(fs::exists(dir.path("tree/sub/deep")));
  EXPECT_EQ(erase("tree/"), 0);
  EXPECT_EQ(erase("tree/"), CR_STATUS_NOT_FOUND);
  EXPECT_TRUE(fs::exists(dir.path("outside/kept")));
}

}  // namespace
