// Contents of a directory without a list of containers, and lists without a content. A crash
// between the two commits of an ingest leaves such; the next ingest mends them.
#pragma once

#include "cli/catalog.h"
#include "cli/findings.h"
#include "cli/sqlite_reader.h"

namespace cli {

// Compares a directory's po.db and ul.db, page by page in order of the POIDs, and tells of each
// mismatch. What does not fit is looked at again under the directory's lock, so that nothing is
// found that an ingest is just doing; no lock is held while something is told. A database that is
// absent or has no table has no rows.
//
// A content has data when the record of one of its entries says so (PO::udcid_qualified); whatever
// has a list is justified by any row with its POID, damaged or not.
void tell_mismatches(const CatalogPath& directory, Findings* findings);

// The same with databases that are open already; null for one that has no rows.
void tell_mismatches(const CatalogPath& directory, const Connection* entries,
                     const Connection* lists, Findings* findings);

}  // namespace cli
