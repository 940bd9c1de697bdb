// The checks of one directory's databases.
#pragma once

#include "cli/catalog.h"
#include "cli/findings.h"

namespace cli {

// Checks po.db: SQLite's integrity, schema, version and every row. A directory without one is
// sound. False when its rows could not all be read.
bool verify_entries(const CatalogPath& directory, Findings* findings);

// The same for ul.db and its lists of containers.
bool verify_lists(const CatalogPath& directory, Findings* findings);

}  // namespace cli
