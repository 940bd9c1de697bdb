#include "cli/protection.h"

#include "cli/format.h"
#include "podb/retention.h"

namespace cli {

std::optional<std::uint64_t> ComplianceClock::now() const {
  std::call_once(read_, [this] {
    timeval clock{};
    const bool is_time = get_compclk(&clock) == CR_STATUS_OK && clock.tv_sec >= 0;
    if (is_time) now_ = static_cast<std::uint64_t>(clock.tv_sec);
  });
  return now_;
}

bool lock_in_force(const _po_t* record, const ComplianceClock& clock) {
  if ((POGetSpecialFlags(record) & SF_RETENTION_LOCK) == 0) return false;
  const auto now = clock.now();
  return !now || POGetAtime(record) > *now;
}

bool protected_entry(const _po_t* record, const ComplianceClock& clock) {
  return (POGetSpecialFlags(record) & SF_IMMUTABLE) != 0 || lock_in_force(record, clock);
}

std::string protection_text(const _po_t* record, const ComplianceClock& clock) {
  if ((POGetSpecialFlags(record) & SF_IMMUTABLE) != 0) return "it belongs to an immutable image";
  if (!lock_in_force(record, clock)) return "";
  if (!clock.now()) return "it has a retention lock, and the compliance clock cannot be read";
  return "its retention lock is in force until " + lock_text(POGetAtime(record), clock);
}

std::string lock_text(std::uint64_t lock, const ComplianceClock& clock) {
  const std::string time = utc_time(lock);
  std::string text = time == "-" ? "after the year 9999" : time;
  const auto now = clock.now();
  if (!now) return text;
  if (lock > *now) return text + " (in " + duration(lock - *now) + ")";
  return text + " (expired " + duration(*now - lock) + " ago)";
}

}  // namespace cli
