// Rows of the table of entries, as they are stored.
#pragma once

#include "cli/row_faults.h"
#include "cli/sqlite_reader.h"

namespace cli {

// What walk_table is to read for `stored_row`.
inline constexpr const char* kRowColumns = "basename, poid, content, crc";

// The row that the statement stands on.
RawRow stored_row(const Statement& statement);

}  // namespace cli
