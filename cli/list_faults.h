// What can be wrong with a content's list of containers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cli/row_faults.h"
#include "host/status.h"
#include "uldb/udcid_record.h"

namespace cli {

// Containers up to this number do not exist.
inline constexpr unsigned long kLastReservedContainer = 63;

// Reads a list's binary form. CR_STATUS_BAD_DATA when it is none.
cr_status_t decode_list(std::string_view bytes, UDCIDRecord* list);

// One text for each thing that is wrong with a row of the table of lists; none for a sound one.
// `list` is the column as it is stored, of SQLite's type `list_type`.
std::vector<std::string> list_faults(const RawColumn& poid, int list_type, std::string_view list);

}  // namespace cli
