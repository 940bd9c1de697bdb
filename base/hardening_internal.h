// Connections to files that somebody else may have written.
#pragma once

struct sqlite3;

// Lets the contents of a file do no more than hold rows: its views cannot be read, its triggers do
// not fire, the functions in its definitions are the harmless ones, its schema and SQLite's own
// structures cannot be written past SQL, no extension is loaded, each cell is checked against its
// page, and nothing is mapped into memory, where a disk's fault would be a signal. Does not touch
// the file.
void harden(sqlite3* db);

// Lets no value be longer than the file of the connection can hold now, and what SQLite holds back
// in a transaction besides: a definition in a hostile file can make it compute more.
void limit_values(sqlite3* db);

// Ends that, for a file that is about to grow.
void unlimit_values(sqlite3* db);
