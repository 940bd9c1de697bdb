#include "libcrsrv/common.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/stat.h>

#include <climits>

#include "tests/support/child_process.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr time_t kNow = 1'700'000'000;
constexpr time_t kDay = 86400;

// Happen once: before a directory is entered, and while a file's age is told.
std::function<void()> on_descent, on_age;

void happen(std::function<void()>& action) {
  if (action) std::exchange(action, nullptr)();
}

int ten_for_abc(const char* name) {
  happen(on_descent);
  return name == std::string("abc") ? 10 : 0;
}

}  // namespace

extern "C" time_t time(time_t*) noexcept {
  happen(on_age);
  return kNow;
}

namespace {

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
  for (const std::size_t stack : {1U << 20U, 0U}) {
    const auto made = SDThreadCreate(&thread, run, &ran, stack, 0);
    EXPECT_TRUE(made == 0 && pthread_join(thread, nullptr) == 0);
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

void add(const std::string& file, time_t age, const std::string& content = "x") {
  write_file(file, content);
  const timespec times[2] = {{kNow - age, 0}, {kNow - age, 0}};
  EXPECT_EQ(utimensat(AT_FDCWD, file.c_str(), times, 0), 0);
}

TEST(LogCleanup, RemovesExactlyWhatIsOverItsLimit) {
  const TempDir dir;
  for (const char* name : {".hidden", ".dir/old", "abc/old", "key/er/old", "deep/er/old"}) {
    add(dir.path(name), 99 * kDay);
  }
  add(dir.path("old"), 10 * kDay + 1);
  add(dir.path("cutoff"), 10 * kDay);
  add(dir.path("empty"), 3 * kDay + 1, "");
  fs::create_symlink(".dir", dir.path("link"));
  auto expected = snapshot(dir.path());
  const auto expect_gone = [&](const std::vector<const char*>& names) {
    for (const char* name : names) EXPECT_EQ(expected.erase(dir.path(name)), 1U) << name;
    EXPECT_EQ(snapshot(dir.path()), expected);
  };
  const char* const root = dir.path().c_str();
  LogCapture log(refhost::LogLevel::Trace);
  SDCleanKeyLogs(root, "", 0, 1);
  EXPECT_TRUE(log.lines().empty());
  SDCleanKeyLogs("gone", "k", 1, 0), SDCleanLogs("gone", 1, 0, 0, nullptr);
  SDCleanLogs(root, INT_MAX, 0, INT_MAX, nullptr);
  expect_gone({});
  SDCleanLogs(root, 0, 1, 0, ten_for_abc);
  expect_gone({"abc/old", "abc"});
  SDCleanKeyLogs(root, "/key", 10, 1);
  expect_gone({"key/er/old", "key/er", "key"});
  SDCleanLogs(root, 10, 0, 3, nullptr);
  expect_gone({"old", "empty"});
  SDCleanLogs(root, 10, 1, 0, nullptr);
  expect_gone({"deep/er/old", "deep/er", "deep"});
  for (const char* line :
       {"SDCleanKeyLogs: path=gone, key=k, maxdays=1, descend=0", "SDCleanLogs: gone, maxdays=1",
        "SDCleanKeyLogs: gone: No such file or directory", "gone: No such file or directory"}) {
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, line);
  }
  log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE, dir.path("abc/old: expired"));
}

TEST(LogCleanup, DoesNotFollowALinkThatTookTheDirectorysPlace) {
  for (std::function<void()>* const when : {&on_descent, &on_age}) {
    const TempDir dir, outside;
    for (const TempDir* in : {&dir, &outside}) add(in->path("abc/old"), 99 * kDay);
    *when = [&] {
      fs::rename(dir.path("abc"), outside.path("aside"));
      fs::create_symlink(outside.path("abc"), dir.path("abc"));
    };
    SDCleanLogs(dir.path().c_str(), 10, 1, 0, ten_for_abc);
    EXPECT_TRUE(fs::is_symlink(dir.path("abc")) && fs::exists(outside.path("abc/old")));
  }
}

}  // namespace
