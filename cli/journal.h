// `pocatalog journal`: replays a journal of SQL.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct JournalApplyOptions {
  std::string database;
  std::string file;
  bool line_by_line = false;
  bool dry_run = false;       // on a copy
  bool force_locked = false;  // also where there are protected entries
};

// Replays a journal into an existing database, under the lock of the directory that holds it. A
// transaction that the journal leaves open is rolled back, and that is a failure. kIncomplete when
// lines were passed over because they are no SQL.
int journal_apply(const Console& console, const JournalApplyOptions& options);

}  // namespace cli
