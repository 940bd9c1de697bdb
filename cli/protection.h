// Which entries the command leaves alone, whatever it is asked to do.
#pragma once

#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

#include "host/po_record.h"

namespace cli {

// The compliance clock as one run of the command sees it: read once, when it is first asked for.
// May be asked from any thread.
class ComplianceClock {
 public:
  // Seconds since the epoch; none when the clock cannot be read or says nothing that is a time.
  std::optional<std::uint64_t> now() const;

 private:
  mutable std::once_flag read_;
  mutable std::optional<std::uint64_t> now_;
};

// Whether the entry has a retention lock that ends after the clock's now, on cloud storage too.
// Without a clock every lock counts.
bool lock_in_force(const _po_t* record, const ComplianceClock& clock);

// Whether the entry is left alone: it belongs to an immutable image, or its lock is in force.
bool protected_entry(const _po_t* record, const ComplianceClock& clock);

// Why it is ("it belongs to an immutable image"); empty when it is not.
std::string protection_text(const _po_t* record, const ComplianceClock& clock);

// "2026-03-04T05:06:07Z (in 89d 23h)", "... (expired 5h 2m ago)"; without a clock the time alone.
std::string lock_text(std::uint64_t lock, const ComplianceClock& clock);

}  // namespace cli
