// The patrol's numbers for Prometheus.
#pragma once

#include <cstdint>
#include <string>

#include "cli/patrol_round.h"

namespace cli {

// The text file's content after a round, the `rounds`th of the process. Every metric has the label
// "root". docs/patrol.md lists them.
std::string metrics_text(const std::string& root, std::uint64_t rounds, const PatrolRound& round);

}  // namespace cli
