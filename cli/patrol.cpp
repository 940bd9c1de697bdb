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
#include "cli/detached.h"
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

// Where a patrol writes; absolute, for the daemon works in another directory.
struct PatrolPaths {
  CatalogPath root;
  std::string log_dir;
  std::string metrics;  // empty for none
};

bool is_writable_directory(const Console& console, const std::string& path) {
  if (wa_isdir(path.c_str()) && zel_access(path.c_str(), W_OK | X_OK) == 0) return true;
  report(console, path, status_of_errno("access"), "no directory that can be written to");
  return false;
}

// Says what would otherwise fail in every round, where nobody hears it.
int refusal(const Console& console, const PatrolPaths& paths) {
  for (const std::string& path : {paths.log_dir, paths.metrics}) {
    if (!lies_in(path, paths.root.root)) continue;
    console.err << "pocatalog: " << printable(path) << ": lies in the catalog\n";
    return kUsage;
  }
  const cr_status_t status = check_directory(paths.root);
  if (status != CR_STATUS_OK) report(console, paths.root.full(), status, "no such catalog");
  bool writable = is_writable_directory(console, paths.log_dir);
  if (!paths.metrics.empty()) {
    const std::string directory = std::filesystem::path(paths.metrics).parent_path().string();
    writable = is_writable_directory(console, directory) && writable;
  }
  if (!paths.metrics.empty() && wa_isdir(paths.metrics.c_str())) {
    report(console, paths.metrics, CR_STATUS_OK, "is a directory, no file for metrics");
    writable = false;
  }
  return status == CR_STATUS_OK && writable ? kDone : kFailed;
}

// To the one who called, and in the log.
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

int become_patrol(const Console& console, const PatrolPaths& paths, const PatrolOptions& options,
                  const std::function<void()>& started) {
  const PatrolSignals signals;
  const std::string name = patrol_name(paths.root.root);
  const cr_status_t status = SDDaemonStart(name.c_str(), options.foreground ? 1 : 0);
  PatrolLog log(paths.log_dir, name);
  const cr_status_t logged = log.open();
  if (status != CR_STATUS_OK) return not_started(console, paths.root, status);
  if (logged != CR_STATUS_OK) {
    report(console, paths.log_dir, logged, "the log cannot be written");
    return kFailed;
  }
  started();
  return Patrol(paths.root, paths.metrics, &log, options).run(signals);
}

}  // namespace

int patrol(const Console& console, const PatrolOptions& options) {
  const PatrolPaths paths{{absolute_root(options.root), {}},
                          absolute_root(options.log_dir),
                          options.metrics.empty() ? "" : absolute_root(options.metrics)};
  const int refused = refusal(console, paths);
  if (refused != kDone) return refused;
  const Daemon watch = [&](const Console& terminal, const std::function<void()>& started) {
    return become_patrol(terminal, paths, options, started);
  };
  return options.foreground ? watch(console, [] {}) : start_detached(console, watch);
}

}  // namespace cli
