// Text that goes into SQL statements.
#pragma once

#include <string>
#include <string_view>

namespace base {

// `text` with every single quote doubled, as it stands between the quotes of an SQL literal. A text
// without quotes comes back as it is.
std::string sql_escaped(std::string_view text);

// Appends `text` as a literal: escaped, between quotes.
void append_sql_literal(std::string& sql, std::string_view text);

}  // namespace base
