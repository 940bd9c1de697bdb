#include "cli/json.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/utf8.h"

namespace cli {
namespace {

std::string hexadecimal(const std::string& bytes) {
  std::string digits;
  for (const char byte : bytes) digits += fmt::format("{:02x}", static_cast<unsigned char>(byte));
  return digits;
}

}  // namespace

void set_name(nlohmann::ordered_json& object, const std::string& field, const std::string& name) {
  if (is_utf8(name)) {
    object[field] = name;
    return;
  }
  object[field] = printable(name);
  object[field + "_hex"] = hexadecimal(name);
}

void print_line(const Console& console, const nlohmann::ordered_json& object) {
  constexpr int kOneLine = -1;
  constexpr bool kAsciiOnly = true;
  console.out << object.dump(kOneLine, ' ', kAsciiOnly) << '\n';
}

}  // namespace cli
