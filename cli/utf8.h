// UTF-8, strictly: names of files are any bytes, terminals and JSON want text.
#pragma once

#include <cstddef>
#include <string_view>

namespace cli {

// What a text starts with: a character, or one byte that starts none.
struct Utf8Character {
  bool valid;
  char32_t code_point;
  std::size_t length;  // in bytes, at least 1
};

// `text` must not be empty. Overlong forms, surrogates and values beyond U+10FFFF are not valid.
Utf8Character first_character(std::string_view text);

bool is_utf8(std::string_view text);

}  // namespace cli
