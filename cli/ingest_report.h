// What an ingest tells its user.
#pragma once

#include <vector>

#include "cli/command.h"
#include "cli/ingest_result.h"

namespace cli {

void report_problems(const Console& console, const std::vector<Problem>& problems);

void print_summary(const Console& console, const IngestCounts& counts, double seconds);

}  // namespace cli
