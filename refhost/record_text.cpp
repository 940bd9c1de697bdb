// The text form of a record. docs/record.md describes it.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <utility>
#include <variant>

#include "refhost/record_internal.h"

namespace refhost {
namespace {

struct Octal {
  std::uint32_t RecordFields::*member;
};

struct Carried {
  std::size_t index;
};

using Member =
    std::variant<std::uint32_t RecordFields::*, std::uint64_t RecordFields::*, int RecordFields::*,
                 char RecordFields::*, std::string RecordFields::*, Octal, Carried>;

struct Field {
  const char* name;
  Member member;
};

constexpr char kSeparator = '|';

constexpr std::array<Field, kRecordFields> kFields = {{
    {"dsid", &RecordFields::dsid},
    {"directory", &RecordFields::directory},
    {"leaf", &RecordFields::leaf},
    {"type", &RecordFields::type},
    {"poid", &RecordFields::poid},
    {"content_fp", &RecordFields::content_fp},
    {"metadata_fp", &RecordFields::metadata_fp},
    {"special_fp", &RecordFields::special_fp},
    {"stype", &RecordFields::stype},
    {"mod_type", &RecordFields::mod_type},
    {"size", &RecordFields::size},
    {"mode", Octal{&RecordFields::mode}},
    {"status", &RecordFields::status},
    {"owner", &RecordFields::owner},
    {"carried_15", Carried{0}},
    {"mtime", &RecordFields::mtime},
    {"ctime", &RecordFields::ctime},
    {"atime", &RecordFields::atime},
    {"carried_19", Carried{1}},
    {"carried_20", Carried{2}},
    {"carried_21", Carried{3}},
    {"carried_22", Carried{4}},
    {"special_flags", &RecordFields::special_flags},
    {"carried_24", Carried{5}},
    {"carried_25", Carried{6}},
    {"carried_26", Carried{7}},
    {"carried_27", Carried{8}},
    {"carried_28", Carried{9}},
    {"carried_29", Carried{10}},
}};

// The bytes that would break the line, or its escapes.
constexpr bool is_escaped(unsigned int byte) {
  return byte < 0x20 || byte == 0x7f || byte == kSeparator || byte == '%';
}

// Looked up: every byte of every text is asked for.
constexpr auto kEscaped = [] {
  std::array<bool, 256> escaped{};
  for (unsigned int byte = 0; byte < escaped.size(); ++byte) escaped[byte] = is_escaped(byte);
  return escaped;
}();

void append_encoded(std::string& out, std::string_view text) {
  static constexpr char digits[] = "0123456789ABCDEF";
  for (;;) {
    const auto* const special = std::find_if(
        text.begin(), text.end(), [](char c) { return kEscaped[static_cast<unsigned char>(c)]; });
    const auto plain = static_cast<std::size_t>(special - text.begin());
    out.append(text.data(), plain);
    if (plain == text.size()) return;
    const auto byte = static_cast<unsigned char>(*special);
    out.append({'%', digits[byte >> 4], digits[byte & 0xf]});
    text.remove_prefix(plain + 1);
  }
}

// Takes the two digits of an escape off the text. NUL has no place in a name.
bool take_escape(std::string_view& text, std::string& out) {
  unsigned int byte = 0;
  const std::string_view digits = text.substr(0, 2);
  const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), byte, 16);
  if (error != std::errc() || end != digits.data() + 2 || byte == 0) return false;
  out += static_cast<char>(byte);
  text.remove_prefix(2);
  return true;
}

bool decode(std::string_view text, std::string& out) {
  out.clear();
  for (;;) {
    const std::size_t escape = text.find('%');
    out.append(text.substr(0, escape));
    if (escape == std::string_view::npos) return true;
    text.remove_prefix(escape + 1);
    if (!take_escape(text, out)) return false;
  }
}

template <class Number>
void append_number(std::string& out, Number value, int base = 10) {
  std::array<char, 24> digits{};
  const auto result = std::to_chars(digits.data(), digits.data() + digits.size(), value, base);
  out.append(digits.data(), static_cast<std::size_t>(result.ptr - digits.data()));
}

template <class Number>
bool parse_number(std::string_view text, Number& value, int base = 10) {
  const char* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, value, base);
  return result.ec == std::errc() && result.ptr == end;
}

struct Printer {
  const RecordFields& fields;
  std::string& out;

  template <class Number>
  void operator()(Number RecordFields::*member) const {
    append_number(out, fields.*member);
  }
  void operator()(char RecordFields::*member) const { out += fields.*member; }
  void operator()(std::string RecordFields::*member) const { append_encoded(out, fields.*member); }
  void operator()(Octal field) const {
    if (fields.*field.member != 0) out += '0';
    append_number(out, fields.*field.member, 8);
  }
  void operator()(Carried field) const { append_encoded(out, fields.carried[field.index]); }
};

// Takes more than the canonical form; the comparison with the printed form sorts the rest out.
struct Parser {
  RecordFields& fields;
  std::string_view text;

  template <class Number>
  bool operator()(Number RecordFields::*member) const {
    return parse_number(text, fields.*member);
  }
  bool operator()(char RecordFields::*member) const {
    if (text.size() != 1) return false;
    fields.*member = text.front();
    return true;
  }
  bool operator()(std::string RecordFields::*member) const { return decode(text, fields.*member); }
  bool operator()(Octal field) const { return parse_number(text, fields.*field.member, 8); }
  bool operator()(Carried field) const { return decode(text, fields.carried[field.index]); }
};

std::string print_field(const RecordFields& fields, const Field& field) {
  std::string text;
  std::visit(Printer{fields, text}, field.member);
  return text;
}

bool parse_fields(std::string_view text, RecordFields& fields) {
  for (const Field& field : kFields) {
    const bool last = &field == &kFields.back();
    const std::size_t end = text.find(kSeparator);
    if (last != (end == std::string_view::npos)) return false;
    if (!std::visit(Parser{fields, text.substr(0, end)}, field.member)) return false;
    text.remove_prefix(last ? text.size() : end + 1);
  }
  return true;
}

// What the letters of the form allow and a record does not.
bool is_valid(const RecordFields& fields) {
  const auto code = static_cast<unsigned char>(fields.mod_type);
  return fields.leaf.find('/') == std::string::npos && code < 0x80 && std::isalnum(code) != 0;
}

}  // namespace

std::string print_record(const RecordFields& fields) {
  constexpr std::size_t kUsualSize = 512;
  std::string text;
  text.reserve(kUsualSize);
  for (const Field& field : kFields) {
    if (&field != &kFields.front()) text += kSeparator;
    std::visit(Printer{fields, text}, field.member);
  }
  return text;
}

bool parse_record(std::string_view text, RecordFields& fields) {
  RecordFields parsed;
  if (!parse_fields(text, parsed) || !is_valid(parsed) || print_record(parsed) != text) {
    return false;
  }
  fields = std::move(parsed);
  return true;
}

std::vector<NamedField> named_fields(const _po_t* record) {
  std::vector<NamedField> named;
  named.reserve(kRecordFields);
  for (const Field& field : kFields) {
    named.push_back({field.name, print_field(record->fields, field)});
  }
  return named;
}

}  // namespace refhost
