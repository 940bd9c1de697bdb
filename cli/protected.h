// Entries that no subcommand may change.
#pragma once

#include "host/po_record.h"

namespace cli {

// Whether the stored entry is to be left alone: it belongs to an immutable image. The library looks
// at this too, but on deletion only when it is told to.
inline bool protected_entry(const _po_t* record) {
  return (POGetSpecialFlags(record) & SF_IMMUTABLE) != 0;
}

}  // namespace cli
