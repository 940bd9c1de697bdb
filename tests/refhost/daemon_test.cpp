#include "host/daemon.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>

#include "host/status.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

// A child process that runs `body` and tells its result through a pipe; it stays until it is ended.
class Child {
 public:
  explicit Child(const std::function<int()>& body) {
    if (pipe2(pipe_, O_CLOEXEC) != 0) return;
    pid_ = fork();
    if (pid_ != 0) {
      close(pipe_[1]);
      return;
    }
    const int result = body();
    if (write(pipe_[1], &result, sizeof result) < 0) _exit(1);
    for (;;) pause();
  }
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;
  ~Child() {
    end();
    close(pipe_[0]);
  }

  int result() const {
    int value = -1;
    return read(pipe_[0], &value, sizeof value) == sizeof value ? value : -1;
  }
  void end() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  pid_t pid() const { return pid_; }

 private:
  int pipe_[2] = {-1, -1};
  pid_t pid_ = -1;
};

class DaemonLock : public testing::Test {
 protected:
  int take() const { return DaemonLockSimple(dir_.path().c_str(), "d"); }
  int test() const { return DaemonLockSimpleTest(dir_.path().c_str(), "d"); }

  TempDir dir_;
};

TEST_F(DaemonLock, IsHeldAsLongAsItsHolderLives) {
  EXPECT_EQ(test(), 0);
  EXPECT_EQ(DaemonLockSimpleRead(), nullptr);
  Child holder([this] { return take(); });
  ASSERT_EQ(holder.result(), 0);
  EXPECT_NE(test(), 0);
  EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_HELD);
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_HELD);
  EXPECT_STREQ(DaemonLockSimpleRead(), std::to_string(holder.pid()).c_str());
  std::thread([] { EXPECT_EQ(DaemonLockSimpleRead(), nullptr); }).join();
  EXPECT_NE(take(), 0);
  EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_HELD);
  holder.end();
  EXPECT_EQ(test(), 0);
  EXPECT_EQ(DaemonLockSimpleRead(), nullptr);
}

TEST_F(DaemonLock, IsTakenOverFromAStaleFile) {
  std::ofstream(dir_.path("d.pid")) << "99999999 and more";
  EXPECT_EQ(test(), 0);
  ASSERT_EQ(take(), 0);
  EXPECT_NE(test(), 0) << "the own process counts as a holder";
  std::string text;
  std::getline(std::ifstream(dir_.path("d.pid")), text, '\0');
  EXPECT_EQ(text, std::to_string(getpid()) + "\n");
}

TEST_F(DaemonLock, IsNotPassedOnToAProgramThatIsStarted) {
  const Child holder([this] {
    take();
    return execlp("sleep", "sleep", "60", nullptr);
  });
  EXPECT_EQ(holder.result(), -1) << "the pipe closes on exec";
  EXPECT_EQ(take(), 0);
}

TEST_F(DaemonLock, IsNotRefusedBecauseSomebodyTestsIt) {
  Child tester([this] {
    for (int i = 0; i < 100'000; ++i) test();
    return 0;
  });
  for (int i = 0; i < 200; ++i) {
    Child holder([this] { return take(); });
    ASSERT_EQ(holder.result(), 0) << i;
  }
}

TEST_F(DaemonLock, RefusesNamesThatLeadElsewhereAndLinks) {
  for (const char* name : {static_cast<const char*>(nullptr), "", "a/b", "../d"}) {
    EXPECT_NE(DaemonLockSimple(dir_.path().c_str(), name), 0);
    EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_BAD_ARG);
    EXPECT_NE(DaemonLockSimpleTest(dir_.path().c_str(), name), 0);
  }
  ASSERT_EQ(symlink("elsewhere", dir_.path("d.pid").c_str()), 0);
  EXPECT_NE(take(), 0);
  EXPECT_NE(test(), 0);
  EXPECT_EQ(_crMapError("", "", 0), CR_STATUS_FAILED);
}

// What a daemon has given up: the session and its lead, the directory, the standard streams.
bool is_detached(pid_t old_session) {
  const pid_t session = getsid(0);
  return session != old_session && session != getpid() && fs::current_path() == "/" &&
         fs::read_symlink("/proc/self/fd/2") == "/dev/null";
}

TEST(Daemon, LeavesItsSessionDirectoryAndStreams) {
  const TempDir dir;
  const std::string answer = dir.path("answer");
  ASSERT_EQ(mkfifo(answer.c_str(), 0600), 0);
  const pid_t child = fork();
  if (child == 0) {
    const pid_t session = getsid(0);
    const bool good = DaemonInit(true) == 0 && getsid(0) == session && DaemonInit(false) == 0 &&
                      is_detached(session);
    std::ofstream(answer) << (good ? "detached" : "not detached");
    _exit(0);
  }
  std::string text;
  std::getline(std::ifstream(answer), text);
  EXPECT_EQ(text, "detached");
  int status = -1;
  EXPECT_EQ(waitpid(child, &status, 0), child);
  EXPECT_EQ(status, 0);
}

}  // namespace
