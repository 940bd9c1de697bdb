// One round of the patrol.
#pragma once

#include <cstdint>
#include <optional>

#include "cli/catalog.h"
#include "cli/patrol_timer.h"

namespace cli {

// What a round saw. Times are seconds since the epoch.
struct PatrolRound {
  std::uint64_t databases = 0;
  std::uint64_t rows = 0;
  std::uint64_t damaged_rows = 0;
  std::uint64_t other_findings = 0;
  std::uint64_t not_examined = 0;
  std::uint64_t locks_in_force = 0;     // of sound rows
  std::optional<std::uint64_t> oldest;  // change times of sound rows; none without rows
  std::optional<std::uint64_t> newest;
  double seconds = 0;
  std::int64_t ended = 0;
};

// Verifies the catalog once, and logs what is wrong and the totals. Pauses 20 ms after every 512
// rows, a directory and a page of rows counting as 16 more, and holds no lock meanwhile. None when
// there is no such catalog any more, which is logged, and when the timer said to stop.
std::optional<PatrolRound> patrol_round(const CatalogPath& root, PatrolTimer* timer);

}  // namespace cli
