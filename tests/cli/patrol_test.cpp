#include <signal.h>
#include <sys/prctl.h>

#include "cli/format.h"
#include "cli/patrol_log.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/private_mounts.h"

namespace {

using Clock = std::chrono::steady_clock;

// Patrols are processes of their own: it takes real time until they have done something.
bool comes_true(const std::function<bool()>& condition) {
  const auto deadline = Clock::now() + std::chrono::seconds(60);
  while (!condition() && Clock::now() < deadline) usleep(2000);
  return condition();
}

class PatrolTest : public KeepTest {
 protected:
  PatrolTest() {
    fs::create_directory(logs_);
    for (int i = 0; i < 20; ++i) add_file("file" + std::to_string(i));
  }

  // Runs `body` where no other daemons are, and where this process is told when its own end.
  static void among_daemons(const std::function<void()>& body) {
    in_private_mounts({"/var/run"}, [&] {
      prctl(PR_SET_CHILD_SUBREAPER, 1);
      body();
    });
  }

  // What the process that was called prints and returns.
  Outcome start() const {
    std::fflush(nullptr);
    const int ended = end_of(start_child([this] {
      const pid_t called = getpid();
      const Outcome outcome =
          command("patrol " + root_ + " --every 6h --log-dir " + logs_ + " --metrics " + metrics_);
      if (getpid() == called) write_file(temp_.path("printed"), outcome.err);  // not in the daemon
      return outcome.status;
    }));
    return {WEXITSTATUS(ended), "", read_file(temp_.path("printed"))};
  }
  // Starts a patrol and waits for its first round; its pid.
  pid_t started() const {
    fs::remove(metrics_);
    EXPECT_EQ(start().status, cli::kDone);
    EXPECT_TRUE(comes_true([&] { return metric("rounds_total") == 1; })) << log();
    return std::stoi(read_file("/var/run/" + cli::patrol_name(root_) + ".pid"));
  }
  void expect_refused(const std::string& why) const {
    const Outcome outcome = start();
    EXPECT_EQ(outcome.status, cli::kFailed);
    EXPECT_NE(outcome.err.find(why), std::string::npos) << outcome.err;
  }
  // Its exit status, -1 when the signal killed it; within a second.
  static int end(pid_t pid, int signal) {
    const auto told = Clock::now();
    kill(pid, signal);
    int status = -1;
    for (pid_t ended = 0; ended != pid && ended != -1;) ended = waitpid(-1, &status, 0);
    EXPECT_LT(Clock::now() - told, std::chrono::seconds(1));
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

  // -1 while there is none.
  double metric(const std::string& name) const {
    const std::string text = read_file(metrics_);
    const std::string head = "\npocatalog_patrol_" + name + "{root=\"" + root_ + "\"} ";
    const std::size_t found = text.find(head);
    return found == std::string::npos ? -1 : std::stod(text.substr(found + head.size()));
  }
  std::string log() const {
    std::string text;
    for (const auto& file : fs::directory_iterator(logs_)) text += read_file(file.path().string());
    return text;
  }
  const std::string logs_ = temp_.path("logs");
  const std::string metrics_ = temp_.path("patrol.prom");
};

TEST_F(PatrolTest, WatchesWhileAnIngestRunsAndFindsWhatChangedByTheNextRound) {
  among_daemons([this] {
    const pid_t pid = started();
    EXPECT_EQ(metric("rows"), 20);
    for (int round = 0; round < 5; ++round) {
      for (int i = 0; i < 200; ++i) write(std::to_string(round) + "/" + std::to_string(i), "x");
      kill(pid, SIGHUP);
      ingest(cli::kDone);
    }
    kill(pid, SIGHUP);
    EXPECT_TRUE(comes_true([&] { return metric("rows") >= 1020; })) << log();
    EXPECT_EQ(metric("damaged_rows") + metric("not_examined"), 0) << log();
    sql("UPDATE po SET content = content || '1' WHERE basename = 'file7'");
    kill(pid, SIGHUP);
    EXPECT_TRUE(comes_true([&] { return metric("damaged_rows") == 1; })) << log();
    EXPECT_NE(log().find("row file7 (rowid"), std::string::npos) << log();
    EXPECT_EQ(end(pid, SIGTERM), cli::kDone);
  });
}

TEST_F(PatrolTest, IsOneForEachCatalogLeavesItsLockHoweverItEndsAndRemovesItsOwnOldLogsOnly) {
  among_daemons([this] {
    const std::string own = logs_ + "/" + cli::patrol_name(root_) + "-2026-01-02.log";
    const std::string others = logs_ + "/" + cli::patrol_name("/other") + "-2026-01-02.log";
    for (const std::string& file : {own, others}) write_file(file, "line"), age(file);
    for (const int signal : {SIGKILL, SIGTERM, SIGINT}) {
      const pid_t pid = started();
      expect_refused("PID = " + std::to_string(pid));
      EXPECT_TRUE(comes_true([&] { return !fs::exists(own); }));
      EXPECT_EQ(end(pid, signal), signal == SIGKILL ? -1 : cli::kDone);
    }
    EXPECT_TRUE(fs::exists(others));
    EXPECT_NE(log().find("ended"), std::string::npos);
  });
}

TEST_F(PatrolTest, TellsTheOneWhoCallsWhyItDoesNotStart) {
  among_daemons([this] {
    fs::create_directory(metrics_);
    expect_refused("is a directory");
    fs::remove(metrics_);
    const std::string today =
        cli::utc_time(static_cast<std::uint64_t>(time(nullptr))).substr(0, 10);
    const std::string file = logs_ + "/" + cli::patrol_name(root_) + "-" + today + ".log";
    fs::create_directory(file);
    expect_refused("the log cannot be written");
    fs::remove(file);
    ASSERT_EQ(mount(nullptr, "/var/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    expect_refused("cannot take its lock");
  });
}

}  // namespace
