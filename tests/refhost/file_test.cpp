#include "host/files.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <vector>

#include "tests/support/temp_dir.h"

namespace {

std::string_view failing;  // the system's function that fails
int left = 0;              // after so many calls

template <class Function, class... Arguments>
auto hooked(const char* name, Function* function, Arguments... arguments) {
  const bool fails = failing == name && left-- == 0;
  errno = fails ? EIO : errno;
  const auto real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
  return fails ? decltype(function(arguments...)){-1} : real(arguments...);
}

}  // namespace

// These take the place of the system's for the host's library. Half of the bytes are written at a
// time when there shall be several writes.
HOST_API ssize_t write(int fd, const void* data, size_t size) {
  return hooked(__func__, write, fd, data, failing == __func__ ? (size + 1) / 2 : size);
}
HOST_API int fsync(int fd) { return hooked(__func__, fsync, fd); }
HOST_API int renameat(int from_fd, const char* from, int to_fd, const char* to) noexcept {
  return hooked(__func__, renameat, from_fd, from, to_fd, to);
}

namespace {

namespace fs = std::filesystem;

std::string content(const std::string& file) {
  std::string text = "unread";
  wa_readfile(file.c_str(), &text);
  return text;
}

cr_status_t write_file(const std::string& file, const std::string& text, bool append = false) {
  return wa_writefile(file.c_str(), text, append);
}

TEST(WholeFile, IsOldOrNewButNeverHalfDoneWhenWritingFails) {
  const std::tuple<const char*, int, const char*> cases[] = {
      // what fails, after so many calls, what is there then
      {"write", 0, "old"},
      {"write", 1, "old"},
      {"renameat", 0, "old"},
      {"fsync", 0, "old"},
      {"fsync", 1, "new content"}};  // not certain to survive a crash
  for (const auto& [step, calls, there] : cases) {
    SCOPED_TRACE(testing::Message() << step << " after " << calls);
    const TempDir dir;
    ASSERT_EQ(write_file(dir.path("f"), "old"), 0);
    failing = step;
    left = calls;
    EXPECT_EQ(write_file(dir.path("f"), "new content"), CR_STATUS_IO_ERROR);
    failing = {};
    EXPECT_EQ(content(dir.path("f")), there);
    EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), {}), 1);
  }
}

TEST(WholeFile, KeepsItsPermissionsAndTakesThePlaceOfALinkButNotOfItsTarget) {
  const TempDir dir;
  const std::string file = dir.path(std::string(255, 'n'));
  for (const std::string& text : {std::string("a"), std::string(200'001, '\0'), std::string()}) {
    EXPECT_EQ(write_file(file, text), 0);
    fs::permissions(file, fs::perms::owner_all);
    EXPECT_EQ(content(file), text);
  }
  EXPECT_EQ(write_file(file, "a", true) + write_file(file, "b", true), 0);
  EXPECT_EQ(content(file), "ab");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
  fs::create_symlink(file, dir.path("link"));
  EXPECT_EQ(write_file(dir.path("link"), "new"), 0);
  EXPECT_EQ(content(file), "ab");
}

TEST(Files, ReportWhatFailsInStatusCellAndErrno) {
  const TempDir dir;
  const std::string missing = dir.path("missing");
  const std::vector<std::function<cr_status_t()>> calls = {
      [&] { return wa_access(missing.c_str(), 0); }, [&] { return write_file(missing + "/f", ""); },
      [&] { return wa_deletetree(missing.c_str()); },
      [&] { return 3 + zel_unlink(missing.c_str()); }};
  for (const auto& call : calls) {
    errno = *__cr_errno_location() = 0;
    EXPECT_EQ(call(), CR_STATUS_NOT_FOUND);
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_NOT_FOUND);
    EXPECT_EQ(errno, ENOENT);
  }
  const std::vector<std::pair<int, cr_status_t>> statuses = {
      {EPERM, 1}, {EEXIST, 3},  {EINVAL, 9},  {EAGAIN, 11},
      {EIO, 21},  {ENOMEM, 22}, {ENOTDIR, 4}, {EACCES, 4}};
  for (const auto& [error, status] : statuses) {
    errno = error;
    EXPECT_EQ(_crMapError("f", "s", 1), status) << error;
  }
}

TEST(Paths, AreCopiedWithinTheirBuffer) {
  char buffer[] = "xxxx";
  EXPECT_EQ(zelstrcpy(buffer, "abcdef", 3), 6U);
  EXPECT_EQ(std::string(buffer, 5), std::string("ab\0x\0", 5));
}

TEST(Tree, IsMadeWithItsParentsAndDeletedWithoutFollowingLinks) {
  const TempDir dir;
  const auto make = [&](const char* name) { return wa_createtree(dir.path(name).c_str(), 0700); };
  const auto erase = [&](const char* name) { return wa_deletetree(dir.path(name).c_str()); };
  EXPECT_EQ(make("outside/sub") + make("tree//sub/./deep/") + make("tree/sub"), 0);
  EXPECT_EQ(fs::status(dir.path("tree/sub")).permissions(), fs::perms::owner_all);
  ASSERT_EQ(write_file(dir.path("tree/file"), "") + write_file(dir.path("outside/kept"), ""), 0);
  fs::create_directory_symlink(dir.path("outside"), dir.path("tree/sub/out"));
  for (const char* name : {"tree/file", "tree/file/a", "tree/sub/out/new"}) {
    EXPECT_EQ(make(name), CR_STATUS_FAILED) << name;
  }
  for (const char* name : {"tree/sub/out", "tree/sub/out/sub", "tree/file"}) {
    EXPECT_EQ(erase(name), CR_STATUS_FAILED) << name;
  }
  EXPECT_EQ(erase("tree/sub/.."), CR_STATUS_BAD_ARG);
  EXPECT_EQ(wa_deletetree("/") + wa_deletetree("") + wa_createtree("", 0), 3 * CR_STATUS_BAD_ARG);
  EXPECT_TRUE(fs::exists(dir.path("tree/sub/deep")));
  EXPECT_EQ(erase("tree/"), 0);
  EXPECT_FALSE(fs::exists(dir.path("tree")));
  EXPECT_TRUE(fs::exists(dir.path("outside/sub")) && fs::exists(dir.path("outside/kept")));
}

}  // namespace
