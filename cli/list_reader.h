// Reading the lists of containers in a directory's ul.db. Unlike the library's store, this neither
// creates a database nor deletes a damaged row.
#pragma once

#include <functional>
#include <string>

#include "cli/catalog.h"
#include "host/status.h"
#include "uldb/udcid_record.h"

namespace cli {

// Fills an empty record with the list of one content. CR_STATUS_NOT_FOUND when the directory has
// none, CR_STATUS_BAD_DATA when it is damaged.
cr_status_t read_list(const CatalogPath& directory, const std::string& poid, UDCIDRecord* list);

// All lists of a directory; null for each that is damaged. `take` runs under a read lock.
cr_status_t read_lists(const CatalogPath& directory,
                       const std::function<void(UDCIDRecord* list)>& take);

}  // namespace cli
