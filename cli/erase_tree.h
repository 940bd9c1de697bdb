// Parts of a catalog whose source is gone.
#pragma once

#include <string>
#include <vector>

#include "cli/ingest_dir.h"

namespace cli {

// Empties and deletes the subdirectories of a catalog directory, but not those of `kept` (in byte
// order), depth first; each under its own lock, in a transaction of its own. What is protected
// stays, and so does every directory above it. Returns early when the run is to stop.
void erase_subdirectories(const IngestJob& job, const std::string& directory,
                          const std::vector<std::string>& kept, IngestOutcome* outcome);

}  // namespace cli
