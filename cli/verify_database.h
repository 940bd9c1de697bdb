// The checks of one directory's databases.
#pragma once

#include <memory>

#include "cli/catalog.h"
#include "cli/database_check.h"
#include "cli/findings.h"
#include "cli/verify_look.h"

namespace cli {

// A database whose rows are to be checked, if there is anything to check.
struct OpenDatabase {
  FileState state = FileState::nothing;
  std::unique_ptr<DatabaseCheck> check;  // when there is something to examine

  const Connection* connection() const { return check ? &check->connection() : nullptr; }
};

// Checks everything of po.db but its rows: SQLite's integrity, schema and version. A directory
// without one is sound. The look outlives the result.
OpenDatabase open_entries(const CatalogPath& directory, Look* look);

// The same for ul.db.
OpenDatabase open_lists(const CatalogPath& directory, Look* look);

// Checks the rows of po.db. False when they could not all be read; the look has the reason.
bool verify_entries(const OpenDatabase& database, Findings* findings);

// The same for the lists of containers in ul.db.
bool verify_lists(const OpenDatabase& database, Findings* findings);

}  // namespace cli
