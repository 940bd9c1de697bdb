// `pocatalog verify`: finds what is damaged.
#pragma once

#include <string>

#include "cli/catalog.h"
#include "cli/command.h"
#include "cli/findings.h"

namespace cli {

struct VerifyOptions {
  std::string root;
};

// Checks every database, every row and every directory's record below the root and goes on after
// damage. Changes nothing, except that SQLite rolls back what a crash left half written. A status
// other than 0 when there is no such catalog.
cr_status_t verify_catalog(const CatalogPath& root, Findings* findings);

// The same by several threads. What they find is printed to the console in the same order, and
// counted in `findings`, whose observer is told nothing.
cr_status_t verify_catalog_by_threads(const Console& console, const CatalogPath& root,
                                      Findings* findings);

// Prints what it finds, and the totals.
int verify(const Console& console, const VerifyOptions& options);

}  // namespace cli
