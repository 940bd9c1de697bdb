// pocatalog ingest: a directory tree becomes a part of a catalog.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct IngestOptions {
  std::string source;
  std::string root;
  unsigned int dsid = 0;  // 1 and above
  std::string client;
  std::string policy;
  bool delete_missing = false;
  bool with_content = true;
  unsigned int threads = 0;  // that work on directories; 0 for as many as the machine has cores
};

inline constexpr unsigned int kMostThreads = 64;

// SOURCE itself becomes ROOT/dsid/client/policy. SIGINT and SIGTERM end it; the directories in work
// are left as they were, and the run can be repeated.
int ingest(const Console& console, const IngestOptions& options);

}  // namespace cli
