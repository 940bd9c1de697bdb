#include "host/files.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <string>
#include <vector>

#include "refhost/control.h"
#include "tests/support/temp_dir.h"

namespace {

TEST(WholeFile, IsReadBackAsItWasWritten) {
  const TempDir dir;
  const std::string file = dir.path(std::string(255, 'n'));
  const std::string large(200'001, '\0');
  for (const std::string& content : {std::string("first"), large, std::string()}) {
    EXPECT_EQ(wa_writefile(file.c_str(), content, false), 0);
    std::string read = "old";
    EXPECT_EQ(wa_readfile(file.c_str(), &read), 0);
    EXPECT_EQ(read, content);
  }
  std::string read;
  EXPECT_EQ(wa_writefile(file.c_str(), "a", true), 0);
  EXPECT_EQ(wa_writefile(file.c_str(), "b", true), 0);
  EXPECT_EQ(wa_readfile(file.c_str(), &read), 0);
  EXPECT_EQ(read, "ab");
}

TEST(WholeFile, KeepsItsPermissionsWhenReplaced) {
  const TempDir dir;
  const std::string file = dir.path("f");
  ASSERT_EQ(wa_writefile(file.c_str(), "a", false), 0);
  ASSERT_EQ(chmod(file.c_str(), 0600), 0);
  ASSERT_EQ(wa_writefile(file.c_str(), "b", false), 0);
  struct stat attributes {};
  ASSERT_EQ(wa_stat(file.c_str(), &attributes), 0);
  EXPECT_EQ(attributes.st_mode & 07777U, 0600U);
}

// Somebody who plants a link must not have a file elsewhere overwritten.
TEST(WholeFile, TakesThePlaceOfALinkAndNotOfItsTarget) {
  const TempDir dir;
  ASSERT_EQ(wa_writefile(dir.path("target").c_str(), "kept", false), 0);
  ASSERT_EQ(symlink("target", dir.path("link").c_str()), 0);
  EXPECT_EQ(wa_writefile(dir.path("link").c_str(), "new", false), 0);
  std::string read;
  EXPECT_EQ(wa_readfile(dir.path("target").c_str(), &read), 0);
  EXPECT_EQ(read, "kept");
}

TEST(Files, ReportMissingOnesInStatusCellAndErrno) {
  const TempDir dir;
  const std::string missing = dir.path("missing");
  std::string read = "untouched";
  struct stat attributes {};
  const std::vector<std::function<cr_status_t()>> calls = {
      [&] { return wa_access(missing.c_str(), 0); },
      [&] { return wa_stat(missing.c_str(), &attributes); },
      [&] { return wa_readfile(missing.c_str(), &read); },
      [&] { return wa_writefile((missing + "/f").c_str(), "", false); },
      [&] { return wa_deletefile(missing.c_str()); },
      [&] { return wa_deletetree(missing.c_str()); },
      [&] { return zel_access(missing.c_str(), 7) == -1 ? CR_STATUS_NOT_FOUND : 0; },
      [&] { return zel_unlink(missing.c_str()) == -1 ? CR_STATUS_NOT_FOUND : 0; },
      [&] { return zel_rmdir(missing.c_str()) == -1 ? CR_STATUS_NOT_FOUND : 0; },
  };
  for (std::size_t i = 0; i < calls.size(); ++i) {
    errno = *__cr_errno_location() = 0;
    EXPECT_EQ(calls[i](), CR_STATUS_NOT_FOUND) << i;
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_NOT_FOUND) << i;
    EXPECT_EQ(errno, ENOENT) << i;
  }
  EXPECT_EQ(read, "untouched");
  EXPECT_FALSE(wa_isdir(missing.c_str()));
  EXPECT_TRUE(wa_isdir(dir.path().c_str()));
}

TEST(Paths, AreCopiedWithinTheirBufferAndSplitAtTheLastSlash) {
  char buffer[] = "xxxx";
  EXPECT_EQ(zelstrcpy(buffer, "abcdef", 3), 6U);
  EXPECT_EQ(std::string(buffer, 5), std::string("ab\0x\0", 5));
  EXPECT_EQ(zelstrcpy(buffer, "abc", 4), 3U);
  EXPECT_STREQ(buffer, "abc");
  const std::vector<std::vector<std::string>> cases = {
      {"/a/b", "/a", "b"}, {"/a", "", "a"}, {"a", "", "a"}, {"/a/", "/a", ""}, {"", "", ""}};
  for (const auto& c : cases) {
    EXPECT_EQ(getdirname(c[0]), c[1]) << c[0];
    EXPECT_EQ(getbasename(c[0]), c[2]) << c[0];
  }
}

TEST(Paths, FoldTheCaseOfLetters) {
  std::string text = "/A/b\xc4";
  ConvertStringCase(text, CASE_DIR_LOWER);
  EXPECT_EQ(text, "/a/b\xc4");
  ConvertStringCase(text, CASE_DIR_UPPER);
  EXPECT_EQ(text, "/A/B\xc4");
  EXPECT_TRUE(OSIsCaseSensitive());
  refhost::set_case_sensitive(false);
  EXPECT_FALSE(OSIsCaseSensitive());
  refhost::set_case_sensitive(true);
}

}  // namespace
