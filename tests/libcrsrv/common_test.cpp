#include "libcrsrv/common.h"

#include <gtest/gtest.h>
#include <sys/prctl.h>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(CatalogPaths, HoldADatabaseOrLieThreeLevelsBelowTheCatalog) {
  const TempDir dir;
  fs::create_directories(dir.path("catalog/A/catalog/1/2/3/4"));
  write_file(dir.path("db/po.db"), "x");
  std::vector<std::string> found;
  for (const auto& [path, content] : snapshot(dir.path())) {
    if (IsPodbPath(path)) found.push_back(path);
  }
  EXPECT_EQ(found, (std::vector{dir.path("catalog/A/catalog/1/2/3"), dir.path("db")}));
  EXPECT_TRUE(IsPodbPath(found[0] + "/") && !IsPodbPath(dir.path("catalog/1/2/3")));
  std::string backup, image;
  EXPECT_EQ(basename2backupid("x", backup, image), 0);
  EXPECT_EQ(backup + image, "xx");
}

TEST(Servers, NameTheirModesAndStartThreads) {
  EXPECT_STREQ(SDModeToString(0x20), "hold");
  EXPECT_STREQ(SDModeToStatString(0x21), "unknown");
  int ran = 0;
  const auto run = [](void* out) -> void* { return ++*static_cast<int*>(out), nullptr; };
  pthread_t thread;
  for (const std::size_t stack : {1 << 20, 0}) {
    EXPECT_EQ(SDThreadCreate(&thread, run, &ran, stack, 0) + pthread_join(thread, nullptr), 0);
  }
  EXPECT_EQ(ran, 2);
}

// Whether the process turns into a daemon that works in the directory of daemons.
bool becomes_daemon() {
  refhost::set_log_level(refhost::LogLevel::Info);
  const pid_t old_session = getsid(0);
  return SDDaemonStart("d", 0) == CR_STATUS_OK && getsid(0) != old_session &&
         fs::current_path() == "/tmp" && fs::read_symlink("/proc/self/fd/2") == "/dev/null";
}

TEST(DaemonStart, AdmitsOneInstanceWhoseLockEndsWithIt) {
  in_private_mounts({"/var/run"}, [] {
    LogCapture log(refhost::LogLevel::Trace);
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    write_file("/var/run/d.pid", "99999999 and more");
    start_child([]() -> int { std::exit(int{!becomes_daemon()}); });
    for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
    EXPECT_EQ(SDDaemonStart("d", 1), CR_STATUS_OK);
    const std::string pid = std::to_string(getpid());
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, "Daemon started, PID = " + pid);
    EXPECT_EQ(read_file("/var/run/d.pid"), pid + "\n");
    EXPECT_NE(std::system("ls -l /proc/self/fd | grep -q d.pid"), 0) << "programs inherit it";
    EXPECT_EQ(SDDaemonStart("d", 1), CR_STATUS_HELD);
    log.expect_error(CR_STATUS_HELD,
                     "d: a conflicting instance is currently active (pid = " + pid + ")\n");
    fs::create_symlink("d.pid", "/var/run/g.pid");
    EXPECT_EQ(SDDaemonStart("g", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED, "g: lock test failure (operation failed).");
    ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(SDDaemonStart("e", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED,
                     "e: cannot become daemon: lock creation failure (operation failed)");
  });
}

}  // namespace
