// Commits that outlive a power failure.
#pragma once

struct sqlite3;

namespace sqlitedb {

// Makes the commits of a connection wait until the disk holds them whole, the removal of their
// journal included: SQLite's default leaves that removal to the system, and a journal that comes
// back after a power failure undoes an acknowledged commit. Returns SQLite's code; its
// text for it goes to `error`, which may be null, as sqlite3_exec's does.
//
// Reads the file, and so fails on a locked or damaged one: not to be done while opening, but before
// the first write. Within a transaction it is too late, and it does nothing.
int make_commits_durable(sqlite3* db, char** error);

// Whether that is what a pragma does; the value is null for one that only asks.
bool is_durable_setting(const char* pragma, const char* value);

}  // namespace sqlitedb
