// The state in which a catalog directory's database file is found.
#pragma once

#include "host/status.h"
#include "podb/sqlite_podb.h"

namespace cli {

enum class DatabaseState {
  absent,
  leftover,  // a file without content: a crash came before the first row was committed
  present,   // open, and with its table of entries
};

// Opens the database if there is one, and creates none. A status other than 0 when it cannot be
// opened, or has content but no table of entries.
cr_status_t examine_database(SQLitePODB& db, DatabaseState* state);

}  // namespace cli
