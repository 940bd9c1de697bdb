// SQL that several queries of the store share.
#pragma once

#include <string>

#include "base/sql_text.h"

// The columns that the row decoder expects of a whole entry.
inline const char* const kSelectEntries = "SELECT basename, poid, content, crc FROM po";
inline const char* const kSelectNames = "SELECT basename FROM po";
inline const char* const kCountEntries = "SELECT COUNT(*) FROM po";

inline std::string quoted(const std::string& text) {
  std::string literal;
  literal.reserve(text.size() + 2);
  base::append_sql_literal(literal, text);
  return literal;
}

// The condition that names one row.
inline std::string where_name_is(const std::string& basename) {
  return " WHERE basename = " + quoted(basename);
}
