// What the rows of a directory are before an ingest changes them.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "cli/row_faults.h"
#include "cli/sqlite_reader.h"

namespace cli {

struct StoredRows {
  // Those that `verify` would name; checksums do not see everything, and reading an entry sees no
  // more than those. What stands for a name in a row without one is in `nameless`.
  std::set<std::string> damaged;
  std::vector<std::string> nameless;

  // The records of sound rows by their names: as many as fit, so that memory does not grow with the
  // directory. What is not here has to be asked for.
  std::unordered_map<std::string, std::string> records;
};

// Reads all rows, page by page. Throws DirectoryError.
StoredRows read_stored_rows(const OpenTable& entries);

// Reads one row of the database. CR_STATUS_NOT_FOUND when there is none.
cr_status_t read_row(const std::string& database, std::int64_t rowid, RawRow* row);

}  // namespace cli
