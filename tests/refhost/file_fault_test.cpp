// Writes that fail at each of their steps. The calls defined here take the place of the system's;
// for that they must be visible to the host's library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <string>

#include "host/files.h"
#include "tests/support/temp_dir.h"

namespace {

enum class Step { None, Write, Sync, Rename };
Step failing = Step::None;
int left = 0;  // how many calls of the failing step still succeed

bool fails(Step step) {
  if (step != failing || left-- > 0) return false;
  errno = EIO;
  return true;
}

template <class Function>
Function next(const char* name) {
  return reinterpret_cast<Function>(dlsym(RTLD_NEXT, name));
}

}  // namespace

// A write that is about to fail takes half of its bytes first.
HOST_API ssize_t write(int fd, const void* data, size_t size) {
  static const auto real = next<decltype(&write)>("write");
  if (failing == Step::Write && left > 0 && size > 1) size /= 2;
  return fails(Step::Write) ? -1 : real(fd, data, size);
}

HOST_API int fsync(int fd) {
  static const auto real = next<decltype(&fsync)>("fsync");
  return fails(Step::Sync) ? -1 : real(fd);
}

HOST_API int renameat(int from_fd, const char* from, int to_fd, const char* to) noexcept {
  static const auto real = next<decltype(&renameat)>("renameat");
  return fails(Step::Rename) ? -1 : real(from_fd, from, to_fd, to);
}

namespace {

TEST(WholeFile, IsOldOrNewButNeverHalfDoneWhenWritingFails) {
  const struct {
    Step step;
    int left;
    const char* content;
  } cases[] = {{Step::Write, 0, "old"},
               {Step::Write, 1, "old"},
               {Step::Sync, 0, "old"},
               {Step::Sync, 1, "new content"},  // in place, but not certain to survive a crash
               {Step::Rename, 0, "old"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << static_cast<int>(c.step) << " after " << c.left);
    const TempDir dir;
    const std::string file = dir.path("f");
    ASSERT_EQ(wa_writefile(file.c_str(), "old", false), 0);
    failing = c.step;
    left = c.left;
    const cr_status_t status = wa_writefile(file.c_str(), "new content", false);
    const int reason = errno;
    failing = Step::None;
    EXPECT_EQ(status, CR_STATUS_IO_ERROR);
    EXPECT_EQ(reason, EIO);
    std::string content;
    EXPECT_EQ(wa_readfile(file.c_str(), &content), 0);
    EXPECT_EQ(content, c.content);
    const std::filesystem::directory_iterator names(dir.path());
    EXPECT_EQ(std::distance(begin(names), end(names)), 1);
  }
}

}  // namespace
