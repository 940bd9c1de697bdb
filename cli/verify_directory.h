// The check of one directory of a catalog.
#pragma once

#include "cli/catalog.h"
#include "cli/findings.h"

namespace cli {

// Checks what lies in the directory: its record, its databases and their rows. What is wrong with
// anything but rows is looked at again under the directory's lock before it is told, so that
// nothing is found that an ingest is just doing. No lock is held while findings are told.
void verify_directory(const CatalogPath& directory, Findings* findings);

}  // namespace cli
