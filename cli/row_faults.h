// What can be wrong with what is stored about one entry.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace cli {

// A column as SQLite stores it.
struct RawColumn {
  int type = 0;  // SQLITE_TEXT, ...
  std::string bytes;
};

// A row of the table of entries as it is stored.
struct RawRow {
  std::int64_t rowid = 0;
  RawColumn basename;
  RawColumn poid;
  RawColumn content;
  int crc_type = 0;
  std::int64_t crc = 0;
};

// "a blob", for a type of SQLite's.
const char* type_name(int type);

// Adds what is wrong with a column that is to hold a text without NUL bytes.
void check_text(const char* name, const RawColumn& column, std::vector<std::string>* faults);

// Whether an entry can have that name: a path can lead to it.
bool has_usable_name(const RawRow& row);

// One text for each thing that is wrong; none for a sound row.
std::vector<std::string> row_faults(const RawRow& row);

// The same for a record's text form, which is to be of the given type and without a location.
std::vector<std::string> record_faults(const std::string& text, int type);

}  // namespace cli
