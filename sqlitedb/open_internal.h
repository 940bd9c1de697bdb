// How the rooms that use SQLite open a file.
#pragma once

#include <string>

struct sqlite3;

namespace sqlitedb {

// As sqlite3_open, and hardens what it opens. A read that fails is an I/O error, never damage.
// SQLITE_CANTOPEN, and no connection, for what is there but no regular file, symbolic links
// followed: reading a pipe or a terminal might never end; also for what could be written but was
// opened to be read only, as SQLite does when it fails for a moment: such a connection would never
// write.
int open_hardened(const std::string& file, sqlite3** db);

}  // namespace sqlitedb
