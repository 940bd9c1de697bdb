// Contents of a directory without a list of containers, and lists without a content. A crash
// between the two commits of an ingest leaves such; the next ingest mends them.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

#include "cli/catalog.h"
#include "cli/findings.h"
#include "host/status.h"

namespace cli {

struct Mismatch {
  std::string poid;
  std::string entry;          // the first entry with data of that content; none for a lone list
  std::uint64_t entries = 0;  // how many entries have that content
};

// Compares a directory's po.db and ul.db, page by page in order of the POIDs. What does not fit is
// looked at again under the directory's lock, so that nothing is found that an ingest is just
// doing; no lock is held while `found` runs. A database that is absent or has no table has no rows.
// Returns a status when the two could not be compared to their end.
//
// A content has data when the record of one of its entries says so (PO::udcid_qualified); whatever
// has a list is justified by any row with its POID, damaged or not.
cr_status_t find_mismatches(const CatalogPath& directory,
                            const std::function<void(const Mismatch&)>& found);

// Tells of each.
void tell_mismatches(const CatalogPath& directory, Findings* findings);

}  // namespace cli
