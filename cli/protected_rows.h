// Whether a database holds entries that are not to be changed.
#pragma once

#include <cstdint>
#include <string>

#include "host/status.h"

namespace cli {

struct ProtectedRows {
  std::uint64_t guarded = 0;          // immutable, or locked by the compliance clock's now
  std::uint64_t damaged = 0;          // nobody knows whether they are
  cr_status_t status = CR_STATUS_OK;  // another when the rows could not all be read
};

// Looks at the rows of a database of entries. One of lists of containers ("ul.db") holds none
// itself: there it is the entries beside it that need their lists. A database without a table of
// entries has none.
ProtectedRows find_protected_rows(const std::string& database);

}  // namespace cli
