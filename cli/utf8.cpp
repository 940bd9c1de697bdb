#include "cli/utf8.h"

namespace cli {
namespace {

constexpr Utf8Character kInvalid{false, 0, 1};

// How a character of a given length begins, and the least value that needs this length.
struct Form {
  std::size_t length;
  char32_t least;
  unsigned char mask;
  unsigned char lead;
};
constexpr Form kForms[] = {
    {1, 0x0, 0x80, 0x00}, {2, 0x80, 0xe0, 0xc0}, {3, 0x800, 0xf0, 0xe0}, {4, 0x10000, 0xf8, 0xf0}};

bool is_scalar(char32_t code_point) {
  return code_point <= 0x10ffff && (code_point < 0xd800 || code_point > 0xdfff);
}

Utf8Character decode(std::string_view text, const Form& form) {
  if (text.size() < form.length) return kInvalid;
  char32_t code_point =
      static_cast<unsigned char>(text[0]) & static_cast<unsigned char>(~form.mask & 0xff);
  for (const char byte : text.substr(1, form.length - 1)) {
    const auto bits = static_cast<unsigned char>(byte);
    if ((bits & 0xc0) != 0x80) return kInvalid;
    code_point = code_point << 6 | (bits & 0x3fU);
  }
  if (code_point < form.least || !is_scalar(code_point)) return kInvalid;
  return {true, code_point, form.length};
}

}  // namespace

Utf8Character first_character(std::string_view text) {
  for (const Form& form : kForms) {
    if ((static_cast<unsigned char>(text[0]) & form.mask) == form.lead) return decode(text, form);
  }
  return kInvalid;
}

bool is_utf8(std::string_view text) {
  while (!text.empty()) {
    const Utf8Character next = first_character(text);
    if (!next.valid) return false;
    text.remove_prefix(next.length);
  }
  return true;
}

}  // namespace cli
