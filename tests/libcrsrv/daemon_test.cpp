#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "libcrsrv/common.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"

namespace {

// Starts the daemon "d" and tells its pid, -1 unless it started and works in the directory of
// daemons. It is a child of this process once those between have ended.
pid_t started_daemon() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t starter = fork();
  if (starter == 0) {
    const bool right = SDDaemonStart("d", 0) == 0 && std::filesystem::current_path() == "/tmp";
    const pid_t self = right ? getpid() : -1;
    if (write(ends[1], &self, sizeof self) != sizeof self) _exit(2);
    for (;;) pause();
  }
  close(ends[1]);
  waitpid(starter, nullptr, 0);
  pid_t pid = -1;
  return read(ends[0], &pid, sizeof pid) == sizeof pid ? pid : -1;
}

TEST(DaemonStart, AdmitsOneInstanceWhoseLockEndsWithIt) {
  in_private_mounts({"/var/run"}, [] {
    LogCapture log(refhost::LogLevel::Trace);
    for (int round = 0; round < 2; ++round) {
      const pid_t daemon = started_daemon();
      ASSERT_GT(daemon, 0);
      EXPECT_EQ(SDDaemonStart("d", 1), CR_STATUS_HELD);
      log.expect_error(CR_STATUS_HELD, "d: a conflicting instance is currently active (pid = " +
                                           std::to_string(daemon) + ")\n");
      EXPECT_EQ(SDDaemonActive("other"), CR_STATUS_OK);
      kill(daemon, SIGKILL);
      while (waitpid(-1, nullptr, 0) != daemon) continue;
      EXPECT_EQ(SDDaemonActive("d"), CR_STATUS_OK);
    }
    // Nobody knows who holds a lock whose file tells no pid.
    const int held = open("/var/run/f.pid", O_CREAT | O_RDWR, 0600);
    ASSERT_EQ(flock(held, LOCK_EX), 0);
    EXPECT_EQ(SDDaemonActive("f"), CR_STATUS_HELD);
    log.expect_error(CR_STATUS_HELD, "f: a conflicting instance is currently active (pid = )\n");
    std::filesystem::create_symlink("f.pid", "/var/run/g.pid");
    EXPECT_EQ(SDDaemonStart("g", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED, "g: lock test failure (operation failed).");
    const auto before = std::filesystem::current_path();
    EXPECT_EQ(SDDaemonStart("h", 1), CR_STATUS_OK);
    EXPECT_EQ(std::filesystem::current_path(), before);
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE,
               "Daemon started, PID = " + std::to_string(getpid()));
    ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(SDDaemonStart("e", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED,
                     "e: cannot become daemon: lock creation failure (operation failed)");
  });
}

}  // namespace
