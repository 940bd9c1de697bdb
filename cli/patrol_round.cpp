#include "cli/patrol_round.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <ostream>

#include "cli/patrol_log.h"
#include "cli/protection.h"
#include "cli/verify.h"
#include "host/log.h"
#include "po/file_po.h"

namespace cli {
namespace {

constexpr std::chrono::milliseconds kPause(20);
constexpr std::chrono::milliseconds kNoPause(0);
constexpr std::uint64_t kRowsBetweenPauses = 512;
constexpr std::uint64_t kRowsOfAPage = 16;  // opening a file costs about as much as these

// Thrown out of the check.
struct Stopped {};

// Goes along: keeps the pace and looks at the locks.
class Watchman : public CheckObserver {
 public:
  explicit Watchman(PatrolTimer* timer) : timer_(timer) {}

  void sound_record(const std::string& text) override {
    ++work_;
    const FilePO entry(text);
    if (lock_in_force(entry.record(), clock_)) ++seen_.locks_in_force;
    const std::uint64_t changed = POGetCtime(entry.record());
    seen_.oldest = std::min(seen_.oldest.value_or(changed), changed);
    seen_.newest = std::max(seen_.newest.value_or(changed), changed);
  }

  void between_pages() override {
    work_ += kRowsOfAPage;
    const bool due = work_ >= kRowsBetweenPauses;
    if (due) work_ = 0;
    if (!timer_->pause(due ? kPause : kNoPause)) throw Stopped();
  }

  const PatrolRound& seen() const { return seen_; }

 private:
  PatrolTimer* const timer_;
  const ComplianceClock clock_;
  std::uint64_t work_ = 0;  // since the last pause, in rows
  PatrolRound seen_;
};

PatrolRound summed_up(const Watchman& watchman, const Findings& findings) {
  PatrolRound round = watchman.seen();
  round.databases = findings.databases();
  round.rows = findings.rows();
  round.damaged_rows = findings.damaged_rows();
  round.other_findings = findings.other();
  round.not_examined = findings.unexamined();
  round.ended = std::time(nullptr);
  return round;
}

}  // namespace

std::optional<PatrolRound> patrol_round(const CatalogPath& root, PatrolTimer* timer) {
  const auto start = PatrolTimer::Clock::now();
  LogLines errors(LogLines::error);
  LogLines warnings(LogLines::warning);
  std::ostream found(&errors);
  std::ostream unexamined(&warnings);
  const Console console{found, unexamined};
  Watchman watchman(timer);
  Findings findings(console, &watchman);
  try {
    const cr_status_t status = verify_catalog(root, &findings);
    if (status != CR_STATUS_OK) {
      ErrorA(status, "%s: there is no catalog to be verified", root.root.c_str());
      return std::nullopt;
    }
  } catch (const Stopped&) {
    return std::nullopt;
  }
  PatrolRound round = summed_up(watchman, findings);
  round.seconds = std::chrono::duration<double>(PatrolTimer::Clock::now() - start).count();
  InfoA(CR_STATUS_OK,
        "%s: round done in %.3f s: %lu databases, %lu rows: %lu damaged rows, %lu other findings, "
        "%lu not examined; %lu locks in force",
        root.root.c_str(), round.seconds, round.databases, round.rows, round.damaged_rows,
        round.other_findings, round.not_examined, round.locks_in_force);
  return round;
}

}  // namespace cli
