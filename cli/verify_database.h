// The check of one directory's database.
#pragma once

#include "cli/catalog.h"
#include "cli/findings.h"

namespace cli {

// Checks the "po.db" of a directory, if there is one: SQLite's own integrity, schema, version and
// every row. Goes through the rows page by page and prints between the pages, while it holds no
// lock.
void verify_database(const CatalogPath& directory, Findings* findings);

}  // namespace cli
