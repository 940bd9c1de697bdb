// The counters of a data store against what it holds.
#pragma once

#include <cstdint>

#include "cli/catalog.h"
#include "cli/findings.h"

namespace cli {

// Counts the data store and tells what its counters say otherwise, unless somebody changes it
// meanwhile. Returns the number of differences.
std::uint64_t check_counters(const CatalogPath& data_store, Findings* findings);

}  // namespace cli
