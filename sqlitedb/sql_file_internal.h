// Files of SQL.
#pragma once

#include <string>

#include "host/status.h"

namespace sqlitedb {

// Reads the whole file into `sql`; one that cannot be opened reads as an empty text, intended.
// CR_STATUS_FAILED, after a log line that calls what was wanted `noun`, when reading fails.
cr_status_t read_sql_file(const std::string& file, const char* noun, std::string& sql);

}  // namespace sqlitedb
