// What every answer of a database of entries has to satisfy, whatever its file holds.
#pragma once

#include <string>

// The directory of the one database; its file is made by the target.
std::string po_directory();
std::string po_file();

// Asks everything of the file and compares with its rows, read past the library; then changes it.
void ask_everything();
