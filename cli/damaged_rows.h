// The rows of a directory that `verify` would name.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "cli/row_faults.h"
#include "host/status.h"

namespace cli {

struct DamagedRows {
  std::set<std::string> named;
  std::vector<std::string> nameless;  // what stands for a name there is none
};

// Reads all rows of a directory's po.db, page by page; none when there is no table of entries. For
// checksums do not see everything, and reading an entry sees no more than those. Throws
// DirectoryError.
DamagedRows find_damaged_rows(const std::string& directory);

// Reads one row of the database. CR_STATUS_NOT_FOUND when there is none.
cr_status_t read_row(const std::string& database, std::int64_t rowid, RawRow* row);

}  // namespace cli
