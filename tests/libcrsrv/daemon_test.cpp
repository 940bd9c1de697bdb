#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/prctl.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>

#include "host/daemon.h"
#include "libcrsrv/common.h"
#include "tests/support/log_capture.h"
#include "tests/support/private_mounts.h"

namespace {
// The host function that fails, with the reason that it leaves.
struct {
  std::string function;
  int reason = 0;
} failing;

bool fails(const char* function) {
  if (failing.function != function) return false;
  errno = failing.reason;
  return true;
}

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int DaemonInit(bool foreground) {
  return fails(__func__) ? -1 : next<decltype(DaemonInit)>(__func__)(foreground);
}

extern "C" int DaemonLockSimpleTest(const char* directory, const char* name) {
  if (fails(__func__)) return -1;
  return next<decltype(DaemonLockSimpleTest)>(__func__)(directory, name);
}

namespace {

namespace fs = std::filesystem;

constexpr const char* kPidFile = "/var/run/d.pid";

std::string content_of(const std::string& file) {
  std::ifstream stream(file);
  return {std::istreambuf_iterator<char>(stream), {}};
}

// A daemon that was started from here, by a process that has ended since.
class Daemon {
 public:
  struct Report {
    cr_status_t status;
    pid_t pid;
    std::array<char, 64> directory;
  };

  // `afterwards` runs in the daemon.
  explicit Daemon(const std::function<void()>& afterwards = [] {}) {
    prctl(PR_SET_CHILD_SUBREAPER, 1);
    int ends[2];
    EXPECT_EQ(pipe(ends), 0);
    const pid_t starter = fork();
    if (starter == 0) {
      Report made{SDDaemonStart("d", 0), getpid(), {}};
      if (getcwd(made.directory.data(), made.directory.size()) == nullptr) _exit(2);
      afterwards();
      if (write(ends[1], &made, sizeof made) != sizeof made) _exit(2);
      for (;;) pause();
    }
    int status = -1;
    waitpid(starter, &status, 0);
    EXPECT_EQ(status, 0) << "the starting process failed";
    EXPECT_EQ(read(ends[0], &report, sizeof report), static_cast<ssize_t>(sizeof report));
    close(ends[0]);
    close(ends[1]);
  }
  Daemon(const Daemon&) = delete;
  Daemon& operator=(const Daemon&) = delete;
  ~Daemon() { end(); }

  // The daemon becomes this process's child only when those between have ended, which it does not
  // wait for.
  void end() {
    if (report.pid <= 0) return;
    kill(report.pid, SIGKILL);
    for (pid_t ended = 0; ended != report.pid && ended != -1;) ended = waitpid(-1, nullptr, 0);
    report.pid = -1;
  }

  Report report{};
};

TEST(DaemonStart, AdmitsOneInstanceWhoseLockEndsWithIt) {
  in_private_mounts({"/var/run"}, [] {
    LogCapture log;
    std::ofstream(kPidFile) << "1\n";  // left behind by a process that no longer holds it
    EXPECT_EQ(SDDaemonActive("d"), CR_STATUS_OK);
    for (int round = 0; round < 2; ++round) {
      Daemon daemon;
      const std::string pid = std::to_string(daemon.report.pid);
      EXPECT_EQ(daemon.report.status, CR_STATUS_OK);
      EXPECT_STREQ(daemon.report.directory.data(), "/tmp");
      EXPECT_EQ(content_of(kPidFile), pid + "\n");
      const pid_t self = getpid();
      EXPECT_EQ(SDDaemonStart("d", 0), CR_STATUS_HELD);
      EXPECT_EQ(getpid(), self);
      log.expect_error(CR_STATUS_HELD,
                       "d: a conflicting instance is currently active (pid = " + pid + ")\n");
      EXPECT_EQ(SDDaemonActive("other"), CR_STATUS_OK);
      daemon.end();
      EXPECT_EQ(SDDaemonActive("d"), CR_STATUS_OK);
    }
  });
}

TEST(DaemonStart, LeavesNoLockToTheProgramsThatADaemonRuns) {
  in_private_mounts({"/var/run"}, [] {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    Daemon daemon([&ends] {
      posix_spawn_file_actions_t actions;
      posix_spawn_file_actions_init(&actions);
      posix_spawn_file_actions_adddup2(&actions, ends[0], STDIN_FILENO);
      posix_spawn_file_actions_addclose(&actions, ends[1]);
      char program[] = "cat";
      char* const arguments[] = {program, nullptr};
      if (posix_spawnp(nullptr, program, &actions, nullptr, arguments, environ) != 0) _exit(2);
    });
    daemon.end();
    LogCapture log;
    // The program has not ended: it holds the pipe that was handed down to it.
    EXPECT_EQ(SDDaemonActive("d"), CR_STATUS_OK);
    close(ends[1]);
    EXPECT_GT(waitpid(-1, nullptr, 0), 0);
  });
}

TEST(DaemonStart, StaysInItsDirectoryInTheForegroundAndSaysWhy) {
  in_private_mounts({"/var/run"}, [] {
    LogCapture log(refhost::LogLevel::Trace);
    ASSERT_EQ(chdir("/usr"), 0);
    EXPECT_EQ(SDDaemonStart("d", 1), CR_STATUS_OK);
    EXPECT_EQ(fs::current_path(), "/usr");
    log.expect(refhost::LogLevel::Trace, CR_STATUS_NONE,
               "Daemon started, PID = " + std::to_string(getpid()));
    ASSERT_EQ(mount("tmpfs", "/var/run", "tmpfs", MS_RDONLY, nullptr), 0);
    EXPECT_EQ(SDDaemonStart("e", 1), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED,
                     "e: cannot become daemon: lock creation failure (operation failed)");
  });
}

TEST(DaemonStart, ReportsWhatTheHostCannotDo) {
  const struct {
    const char* function;
    int reason;
    cr_status_t status;
    const char* line;
  } cases[] = {
      {"DaemonLockSimpleTest", 0, CR_STATUS_FAILED, "d: lock test failure (operation failed)."},
      {"DaemonLockSimpleTest", EIO, CR_STATUS_IO_ERROR,
       "d: lock test failure (input/output error)."},
      {"DaemonLockSimpleTest", EPERM, CR_STATUS_HELD,
       "d: a conflicting instance is currently active (pid = )\n"},
      {"DaemonInit", ENOMEM, CR_STATUS_NO_MEMORY, "d: cannot become daemon (out of memory)"},
  };
  for (const auto& c : cases) {
    LogCapture log;
    failing.function = c.function;
    failing.reason = c.reason;
    EXPECT_EQ(SDDaemonStart("d", 1), c.status);
    log.expect_error(c.status, c.line);
  }
  failing = {};
}

}  // namespace
