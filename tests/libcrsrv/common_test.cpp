#include "libcrsrv/common.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>

#include <csignal>
#include <filesystem>
#include <fstream>

#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

void* stack_size_of_thread(void* out) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(out));
  pthread_attr_destroy(&attributes);
  return out;
}

TEST(Threads, AreJoinableUnlessDetachedIsExactlyOneAndGetTheirStack) {
  constexpr std::size_t kLarge = 64 << 20;
  std::size_t size = 0;
  pthread_t thread{};
  EXPECT_EQ(SDThreadCreate(&thread, stack_size_of_thread, &size, kLarge, 2), 0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  EXPECT_EQ(size, kLarge);
  const auto wait = [](void*) -> void* { return pause(), nullptr; };
  ASSERT_EQ(SDThreadCreate(&thread, wait, nullptr, 1, 1), 0) << "less than the system grants";
  EXPECT_EQ(pthread_join(thread, nullptr), EINVAL);
}

TEST(Modes, AreOneBitEachWithTextsOfTheirOwnForLogsAndStatus) {
  for (const std::int32_t none : {0, 0x18, 0x80, 0x4000000, -1}) {
    EXPECT_STREQ(SDModeToString(none), "unknown") << none;
    EXPECT_STREQ(SDModeToStatString(none), "unknown") << none;
  }
  EXPECT_STREQ(SDModeToString(0x10), "stopped");
  EXPECT_STREQ(SDModeToStatString(0x10), "SHUTDOWN");
  EXPECT_STREQ(SDModeToString(0x800), "task cleanup");
  EXPECT_STREQ(SDModeToStatString(0x800), "REAP_CHILDS");
}

TEST(CatalogPaths, HoldADatabaseOrLieThreeLevelsBelowTheCatalog) {
  const TempDir dir;
  for (const char* path : {"a/catalog/x/catalog/A/B/C/D", "catalogs/A/B/C", "db"}) {
    fs::create_directories(dir.path(path));
  }
  std::ofstream(dir.path("db/po.db")) << "x";
  for (const char* path : {"a/catalog/x/catalog/A/B/C", "a/catalog/x/catalog/A/B/C/", "db"}) {
    EXPECT_TRUE(IsPodbPath(dir.path(path))) << path;
  }
  for (const char* path : {"a/catalog/x/catalog/A/B/C//", "a/catalog/x/catalog/A/B",
                           "catalogs/A/B/C", "a/catalog/x/catalog/A/B/C/D",
                           "a/catalog/x/catalog/A/B/missing", "a/catalog/x/catalog/A"}) {
    EXPECT_FALSE(IsPodbPath(dir.path(path))) << path;
  }
  std::string id = "x";
  std::string image = "y";
  EXPECT_EQ(basename2backupid("", id, image), 0);
  EXPECT_EQ(id + image, "");
}

// Starts the daemon "d" and tells its pid, -1 unless it started and works in the directory of
// daemons. It is a child of this process once those between have ended.
pid_t started_daemon() {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  int ends[2];
  EXPECT_EQ(pipe(ends), 0);
  const pid_t starter = fork();
  if (starter == 0) {
    const bool right = SDDaemonStart("d", 0) == 0 && fs::current_path() == "/tmp";
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
    fs::create_symlink("f.pid", "/var/run/g.pid");
    EXPECT_EQ(SDDaemonStart("g", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED, "g: lock test failure (operation failed).");
    const auto before = fs::current_path();
    EXPECT_EQ(SDDaemonStart("h", 1), CR_STATUS_OK);
    EXPECT_EQ(fs::current_path(), before);
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE,
               "Daemon started, PID = " + std::to_string(getpid()));
    ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(SDDaemonStart("e", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED,
                     "e: cannot become daemon: lock creation failure (operation failed)");
  });
}

}  // namespace
