// What SQLite's result codes mean.
#pragma once

struct sqlite3;

// The code of a call, or SQLITE_IOERR_READ where SQLite tells of damage because the system could
// not read: what is dropped for damage must not be dropped for that. A connection that has met such
// a failure tells of no damage until it is closed.
int without_false_damage(sqlite3* db, int code);
