#include "cli/command.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>
#include <nlohmann/json.hpp>
#include <ostream>
#include <string_view>

#include "cli/cause.h"
#include "cli/json.h"
#include "cli/utf8.h"

namespace cli {
namespace {

struct CodePoints {
  char32_t first;
  char32_t last;
};

// Control characters, and those that are invisible or reorder what stands around them.
constexpr CodePoints kHidden[] = {
    {0x00, 0x1f},     {'\\', '\\'},     {0x7f, 0x9f},      {0xad, 0xad},     {0x61c, 0x61c},
    {0x180b, 0x180f}, {0x200b, 0x200f}, {0x2028, 0x202e},  {0x2060, 0x206f}, {0xfe00, 0xfe0f},
    {0xfeff, 0xfeff}, {0xfff9, 0xfffb}, {0xe0000, 0xe0fff}};

bool shows_as_itself(char32_t code_point) {
  return std::none_of(std::begin(kHidden), std::end(kHidden), [code_point](CodePoints r) {
    return r.first <= code_point && code_point <= r.last;
  });
}

// Nearly every name is of such bytes only, and need not be looked at by characters.
bool is_plain(char byte) { return byte >= ' ' && byte <= '~' && byte != '\\'; }

void append_escaped(std::string& out, std::string_view bytes) {
  for (const char byte : bytes) {
    out += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
  }
}

}  // namespace

void report(const Console& console, const std::string& path, cr_status_t status,
            const std::string& text) {
  const std::string kept = take_cause();
  const std::string cause = needs_cause(status) ? kept : "";
  console.err << "pocatalog: " << printable(path) << ": " << text;
  if (status != CR_STATUS_OK) {
    console.err << fmt::format(" (status {}: {}{})", status, CRStatusToStringA(status),
                               cause.empty() ? "" : "; " + printable(cause));
  }
  console.err << '\n';
  if (!console.json) return;
  nlohmann::ordered_json object;
  set_name(object, "problem", text);
  set_name(object, "path", path);
  object["status"] = status;
  if (status != CR_STATUS_OK) object["status_text"] = CRStatusToStringA(status);
  if (!cause.empty()) set_name(object, "cause", cause);
  print_line(console, object);
}

std::string printable(const std::string& name) {
  if (std::all_of(name.begin(), name.end(), is_plain)) return name;
  std::string shown;
  std::string_view rest = name;
  while (!rest.empty()) {
    const Utf8Character next = first_character(rest);
    const std::string_view bytes = rest.substr(0, next.length);
    if (next.valid && shows_as_itself(next.code_point)) {
      shown += bytes;
    } else {
      append_escaped(shown, bytes);
    }
    rest.remove_prefix(next.length);
  }
  return shown;
}

}  // namespace cli
