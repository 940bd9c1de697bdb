#include "base/sql_text.h"

namespace base {

namespace {

void append_escaped(std::string& out, std::string_view text) {
  for (;;) {
    const std::size_t quote = text.find('\'');
    out.append(text.substr(0, quote));
    if (quote == std::string_view::npos) return;
    out += "''";
    text.remove_prefix(quote + 1);
  }
}

}  // namespace

std::string sql_escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  append_escaped(out, text);
  return out;
}

void append_sql_literal(std::string& sql, std::string_view text) {
  sql += '\'';
  append_escaped(sql, text);
  sql += '\'';
}

}  // namespace base
