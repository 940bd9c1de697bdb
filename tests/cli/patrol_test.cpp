#include <signal.h>
#include <sys/prctl.h>

#include "cli/patrol_log.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"
#include "tests/support/private_mounts.h"

namespace {

class PatrolTest : public CatalogTest {
 protected:
  // Calls for a patrol, and expects this status and message of the process that was called.
  void start(int status, const std::string& told = "") const {
    const int ended = end_of(start_child([this] {
      const pid_t called = getpid();
      const Outcome outcome =
          command("patrol " + root_ + " --every 6h --log-dir " + logs_ + " --metrics " + metrics_);
      if (getpid() == called) write_file(temp_.path("told"), outcome.err);  // not in the daemon
      return outcome.status;
    }));
    EXPECT_EQ(WEXITSTATUS(ended), status);
    EXPECT_NE(read_file(temp_.path("told")).find(told), std::string::npos) << told;
  }
  // Starts a patrol and waits for its first round; its pid.
  pid_t started() const {
    fs::remove(metrics_);
    start(cli::kDone);
    expect_soon("rounds_total", "1");
    return std::stoi(read_file("/var/run/" + cli::patrol_name(root_) + ".pid"));
  }
  static void end(pid_t pid, int signal) {
    kill(pid, signal);
    EXPECT_EQ(end_of(pid), signal == SIGKILL ? SIGKILL : 0);
  }
  bool is_metric(const std::string& name, const std::string& value) const {
    const std::string all = read_file(metrics_), labels = "{root=\"" + root_ + "\"} ";
    return all.find("\npocatalog_patrol_" + name + labels + value + "\n") != std::string::npos;
  }
  // Patrols are processes of their own: it takes real time until they have done something.
  void expect_soon(const std::string& name, const std::string& value) const {
    for (int i = 0; i < 20000 && !is_metric(name, value); ++i) usleep(2000);
    EXPECT_TRUE(is_metric(name, value)) << log();
  }
  std::string log() const {
    std::string text;
    for (const auto& file : snapshot(logs_)) text += file.second;
    return text;
  }
  const std::string logs_ = temp_.path("logs");
  const std::string metrics_ = temp_.path("patrol.prom");
};

TEST_F(PatrolTest, FindsWhatChangedByTheNextRoundAndIsOneForEachCatalogHoweverTheLastEnded) {
  in_private_mounts({"/var/run"}, [this] {  // where no other daemons are
    prctl(PR_SET_CHILD_SUBREAPER, 1);       // this process is told when its own end
    add_file("img");
    const std::string own = logs_ + "/" + cli::patrol_name(root_) + "-2026-01-02.log";
    const std::string others = logs_ + "/" + cli::patrol_name("/other") + "-2026-01-02.log";
    for (const std::string& file : {own, others}) write_file(file, "line"), age(file);
    const pid_t first = started();
    start(cli::kFailed, "PID = " + std::to_string(first));
    end(first, SIGKILL);
    const pid_t pid = started();
    for (int file = 0; file < 1000; ++file) {
      write(std::to_string(file / 200) + "/" + std::to_string(file), "x");
      if (file % 200 == 199) kill(pid, SIGHUP), ingest(cli::kDone);
    }
    kill(pid, SIGHUP);
    // Entries, and a list in each directory.
    expect_soon("rows", "1006");
    EXPECT_TRUE(is_metric("damaged_rows", "0") && is_metric("not_examined", "0")) << log();
    sql("UPDATE po SET content = content || '1' WHERE basename = 'img'");
    kill(pid, SIGHUP);
    expect_soon("damaged_rows", "1");
    EXPECT_NE(log().find("row img (rowid"), std::string::npos) << log();
    EXPECT_TRUE(fs::exists(others) && !fs::exists(own));
    end(pid, SIGTERM);
    ASSERT_EQ(mount(nullptr, "/var/run", nullptr, MS_REMOUNT | MS_RDONLY, nullptr), 0);
    start(cli::kFailed, "cannot take its lock");
  });
}

}  // namespace
