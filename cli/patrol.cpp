#include "cli/patrol.h"

#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <exception>
#include <filesystem>
#include <limits>
#include <thread>

#include "cli/catalog.h"
#include "cli/patrol_log.h"
#include "cli/patrol_metrics.h"
#include "cli/patrol_round.h"
#include "cli/patrol_timer.h"
#include "host/daemon.h"
#include "host/files.h"
#include "host/log.h"
#include "libcrsrv/common.h"

namespace cli {
namespace {

constexpr std::int64_t kLongestInterval = 366LL * 86400;
// SIGTERM ends the patrol within a second, this included.
constexpr std::chrono::milliseconds kTimeToEnd(700);

// The patrol's signals, blocked for this thread and those that it starts: only the one that waits
// for them gets them.
class PatrolSignals {
 public:
  PatrolSignals() {
    sigemptyset(&set_);
    for (const int signal : {SIGTERM, SIGINT, SIGHUP}) sigaddset(&set_, signal);
    pthread_sigmask(SIG_BLOCK, &set_, &before_);
  }
  PatrolSignals(const PatrolSignals&) = delete;
  PatrolSignals& operator=(const PatrolSignals&) = delete;
  ~PatrolSignals() { pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  int wait() const {
    int signal = SIGTERM;
    sigwait(&set_, &signal);
    return signal;
  }

 private:
  sigset_t set_{};
  sigset_t before_{};
};

// The daemon itself: one thread works, the other waits for signals.
class Patrol {
 public:
  Patrol(CatalogPath root, std::string metrics, PatrolLog* log, const PatrolOptions& options)
      : root_(std::move(root)), metrics_(std::move(metrics)), log_(log), options_(options) {}

  int run(const PatrolSignals& signals) {
    InfoA(CR_STATUS_OK, "patrol of %s started, PID = %d", root_.root.c_str(), getpid());
    std::thread worker([this] { work(); });
    while (signals.wait() == SIGHUP) timer_.start_round();
    timer_.stop();
    if (!timer_.wait_finished(kTimeToEnd)) {
      // The check only reads: nothing is lost where it is broken off.
      InfoA(CR_STATUS_OK, "patrol of %s ended in the middle of a check", root_.root.c_str());
      _exit(kDone);
    }
    worker.join();
    InfoA(CR_STATUS_OK, "patrol of %s ended", root_.root.c_str());
    return kDone;
  }

 private:
  void work() {
    const std::chrono::seconds interval(std::min(options_.every, kLongestInterval));
    for (bool going = true; going;) {
      const auto due = PatrolTimer::Clock::now() + interval;
      run_round();
      going = timer_.wait_until(due);
    }
    timer_.finish();
  }

  // The next round may fare better.
  void run_round() {
    try {
      log_->open();
      const auto round = patrol_round(root_, &timer_);
      if (round) publish(*round);
      log_->clean(options_.keep_logs);
    } catch (const std::exception& error) {
      ErrorA(CR_STATUS_FAILED, "patrol of %s: %s", root_.root.c_str(), error.what());
    }
  }

  void publish(const PatrolRound& round) {
    ++rounds_;
    if (metrics_.empty()) return;
    const std::string text = metrics_text(root_.root, rounds_, round);
    const cr_status_t status = wa_writefile(metrics_.c_str(), text, false);
    if (status != CR_STATUS_OK) ErrorA(status, "cannot write %s", metrics_.c_str());
  }

  const CatalogPath root_;
  const std::string metrics_;
  PatrolLog* const log_;
  const PatrolOptions& options_;
  PatrolTimer timer_;
  std::uint64_t rounds_ = 0;  // the worker's
};

bool lies_in(const std::string& path, const std::string& directory) {
  return path == directory || path.compare(0, directory.size() + 1, directory + "/") == 0;
}

// Says on the terminal what would otherwise fail in a daemon that nobody hears.
int refusal(const Console& console, const CatalogPath& root, const std::string& log_dir,
            const std::string& metrics) {
  for (const std::string& path : {log_dir, metrics}) {
    if (!lies_in(path, root.root)) continue;
    console.err << "pocatalog: " << printable(path) << ": lies in the catalog\n";
    return kUsage;
  }
  const cr_status_t status = check_directory(root);
  if (status != CR_STATUS_OK) report(console, root.full(), status, "no such catalog");
  const bool writable = wa_isdir(log_dir.c_str()) && zel_access(log_dir.c_str(), W_OK | X_OK) == 0;
  if (!writable) {
    report(console, log_dir, status_of_errno("access"), "no directory that can be written to");
  }
  return status == CR_STATUS_OK && writable ? kDone : kFailed;
}

// On the terminal, while there is one, and in the log.
int not_started(const Console& console, const CatalogPath& root, cr_status_t status) {
  const char* pid = status == CR_STATUS_HELD ? DaemonLockSimpleRead() : nullptr;
  const std::string text =
      status == CR_STATUS_HELD
          ? std::string("a patrol is running, PID = ") + (pid != nullptr ? pid : "")
          : "the patrol cannot become a daemon, or cannot take its lock in /var/run";
  report(console, root.full(), status, text);
  ErrorA(status, "%s: %s", root.root.c_str(), text.c_str());
  return kFailed;
}

}  // namespace

int patrol(const Console& console, const PatrolOptions& options) {
  // The daemon works in another directory.
  const CatalogPath root{absolute_root(options.root), {}};
  const std::string log_dir = absolute_root(options.log_dir);
  const std::string metrics = options.metrics.empty() ? "" : absolute_root(options.metrics);
  const int refused = refusal(console, root, log_dir, metrics);
  if (refused != kDone) return refused;
  const PatrolSignals signals;
  const std::string name = patrol_name(root.root);
  const cr_status_t started = SDDaemonStart(name.c_str(), options.foreground ? 1 : 0);
  PatrolLog log(log_dir, name);
  const cr_status_t logged = log.open();
  if (started != CR_STATUS_OK) return not_started(console, root, started);
  if (logged == CR_STATUS_OK) return Patrol(root, metrics, &log, options).run(signals);
  report(console, log_dir, logged, "the log cannot be written");
  return kFailed;
}

}  // namespace cli
