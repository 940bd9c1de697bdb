#include "host/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>

#include "host/status.h"
#include "tests/support/temp_dir.h"

namespace {
std::function<void()> pausing;
}  // namespace

// Takes the place of the system's for the host's library.
HOST_API int usleep(useconds_t) {
  pausing();
  return 0;
}

namespace {

namespace fs = std::filesystem;

class DaemonLock : public testing::Test {
 protected:
  int take() const { return DaemonLockSimple(dir.path().c_str(), "d"); }
  int test() const { return DaemonLockSimpleTest(dir.path().c_str(), "d"); }

  const TempDir dir;
  const std::string file = dir.path("d.pid");
};

TEST_F(DaemonLock, IsTakenOverFromAStaleFileEvenWhileSomebodyTestsIt) {
  std::ofstream(file) << "99999999 and more";
  EXPECT_EQ(test(), 0);
  const int tester = open(file.c_str(), O_RDONLY);
  flock(tester, LOCK_SH);
  pausing = [tester] { close(tester); };
  ASSERT_EQ(take(), 0);
  EXPECT_EQ(take() + test(), -2) << "the own process counts as a holder";
  EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_HELD);
  EXPECT_STREQ(DaemonLockSimpleRead(), std::to_string(getpid()).c_str());
  std::string text;
  std::getline(std::ifstream(file), text, '\0');
  EXPECT_EQ(text, std::to_string(getpid()) + "\n");
  EXPECT_EQ(std::system("ls -l /proc/self/fd | grep -q pipe"), 0);
  EXPECT_NE(std::system("ls -l /proc/self/fd | grep -q d.pid"), 0) << "programs inherit it";
}

TEST_F(DaemonLock, RefusesNamesThatLeadElsewhere) {
  for (const char* name : {static_cast<const char*>(nullptr), "", "../d"}) {
    EXPECT_EQ(DaemonLockSimple(dir.path().c_str(), name), -1);
    EXPECT_EQ(DaemonLockSimpleTest(dir.path().c_str(), name), -1);
    EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_BAD_ARG);
  }
}

TEST(Daemon, LeavesItsSessionDirectoryAndStreams) {
  prctl(PR_SET_CHILD_SUBREAPER, 1);
  if (fork() == 0) {
    const pid_t old = getsid(0);
    const bool stayed = DaemonInit(true) == 0 && getsid(0) == old;
    const bool left = DaemonInit(false) == 0 && getsid(0) != old && getsid(0) != getpid();
    const fs::path errors = fs::read_symlink("/proc/self/fd/2");
    _exit(stayed && left && fs::current_path() == "/" && errors == "/dev/null" ? 0 : 1);
  }
  for (int status = 0; wait(&status) > 0;) EXPECT_EQ(status, 0);
}

}  // namespace
