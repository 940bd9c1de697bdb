// Watches over the descriptors of databases. Closing any descriptor of a file drops the locks that
// the process has on it: while SQLite has a database open, nobody else may close one. A test
// program with watch.cpp among its sources fails at its end when somebody did.
#pragma once

#include <string>
#include <vector>

// The files that somebody else than SQLite closed while SQLite had them open, since asked last.
std::vector<std::string> closed_beside_sqlite();

// How many times SQLite has opened a file.
long opened_by_sqlite();
