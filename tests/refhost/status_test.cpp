#include "host/status.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>
#include <utility>
#include <vector>

#include "host/files.h"
#include "refhost/control.h"

namespace {

TEST(Status, HasOneCellPerThread) {
  *__cr_errno_location() = 5;
  std::thread([] {
    EXPECT_EQ(*__cr_errno_location(), 0);
    *__cr_errno_location() = 6;
  }).join();
  EXPECT_EQ(*__cr_errno_location(), 5);
}

TEST(Status, MapsErrno) {
  const std::vector<std::pair<int, cr_status_t>> cases = {
      {0, 0},       {ENOENT, 2}, {EEXIST, 3}, {EPERM, 1},   {EINVAL, 9},
      {EAGAIN, 11}, {EBUSY, 11}, {EIO, 21},   {ENOMEM, 22}, {EOPNOTSUPP, 95},
      {ENOTDIR, 4}, {EACCES, 4}, {ENOSPC, 4}, {-1, 4}};
  for (const auto& [error, status] : cases) {
    errno = error;
    EXPECT_EQ(_crMapError("f", "s", 1), status) << error;
  }
}

TEST(ErrnoException, CarriesStatusAndTexts) {
  const Cr_ErrnoException plain(22, "message", nullptr);
  Cr_ErrnoException other(13, "another", "extra");
  EXPECT_STREQ(other.what(), "another: extra");
  other = plain;
  EXPECT_STREQ(Cr_ErrnoException(other).what(), "message");
  EXPECT_EQ(other.status(), 22);
}

TEST(Clock, StandsStillOnceSetAndMovesOnRequest) {
  const hrtime_t before = gethrtime();
  EXPECT_LE(before, gethrtime());
  refhost::set_clock(5'000'000'000);
  refhost::advance_clock(1'500'000'000);
  EXPECT_DOUBLE_EQ(hrtime2seconds(gethrtime() - 5'000'000'000), 1.5);
  refhost::use_real_clock();
  EXPECT_GE(gethrtime(), before);
}

}  // namespace
