// What a crash left undone between the rows of a directory and their lists of containers.
#pragma once

#include <set>
#include <string>

#include "cli/ingest_result.h"
#include "cli/sqlite_reader.h"

namespace cli {

// POIDs. Well-formed ones only: what else stands in a database by damage is left to `verify`.
struct ListGaps {
  std::set<std::string> missing;  // used by rows, with no list or a damaged one
  std::set<std::string> unused;   // with a list, and used by no row
};

// The table of a directory's entries. Throws DirectoryError.
OpenTable open_entry_table(const std::string& directory);

// Compares the rows of a directory with its lists, in memory that grows with the gaps only. The
// empty leftover of a crash and a damaged "ul.db" are taken away first: then all lists are missing.
// Under the directory's lock, with no transaction open. Throws DirectoryError.
ListGaps find_list_gaps(const OpenTable& entries, const std::string& directory,
                        IngestOutcome* outcome);

}  // namespace cli
