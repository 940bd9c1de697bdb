#include "base/sql_text.h"

namespace base {

std::string sql_escaped(std::string_view text) {
  std::string out;
  out.reserve(text.size());
  for (const char c : text) {
    if (c == '\'') out += '\'';
    out += c;
  }
  return out;
}

}  // namespace base
