#include "cli/find.h"

#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "base/sql_text.h"
#include "cli/catalog_scan.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/time_text.h"
#include "host/files.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

// ">N" or "<N".
struct SizeBound {
  char relation = '>';
  std::uint64_t bytes = 0;

  bool admits(std::uint64_t size) const { return relation == '>' ? size > bytes : size < bytes; }
};

std::optional<SizeBound> parse_size(const std::string& text) {
  SizeBound bound;
  if (text.size() < 2 || (text[0] != '>' && text[0] != '<')) return std::nullopt;
  bound.relation = text[0];
  const char* end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data() + 1, end, bound.bytes);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  return bound;
}

// The library's condition for a pattern, with quotes that stay inside the literal. By the "+" the
// pages of a walk stay what SQLite searches the index for: by a pattern each would begin anew.
std::optional<std::string> name_condition(const std::string& pattern) {
  if (OSIsCaseSensitive()) return "+basename GLOB '" + base::sql_escaped(pattern) + "'";
  std::string escaped;
  if (SQLitePODB::PatternEscape(pattern, escaped) != CR_STATUS_OK) return std::nullopt;
  return "+basename LIKE '" + base::sql_escaped(escaped) + "' ESCAPE '\\'";
}

// What a file has to be like.
struct Wanted {
  std::string condition;  // SQL: name and content
  std::optional<SizeBound> size;
  std::optional<std::int64_t> newer;

  bool admits(const _po_t* record) const {
    return (!size || size->admits(POGetSize(record))) &&
           (!newer || signed_time(refhost::get_fields(record).mtime) > *newer);
  }
};

int refuse(const Console& console, const std::string& value, const std::string& reason) {
  report(console, value, CR_STATUS_OK, reason);
  return kUsage;
}

int understand(const Console& console, const FindOptions& options, Wanted* wanted) {
  const auto name = name_condition(options.pattern);
  if (!name) return refuse(console, options.pattern, "too long for a pattern");
  wanted->condition = *name;
  if (!options.poid.empty()) {
    if (!POIDStringValidate(options.poid.c_str())) {
      return refuse(console, options.poid, "not a POID");
    }
    wanted->condition += " AND poid = '" + base::sql_escaped(options.poid) + "'";
  }
  wanted->size = parse_size(options.size);
  if (!options.size.empty() && !wanted->size) {
    return refuse(console, options.size, "not a size: '>' or '<' and a number of bytes");
  }
  wanted->newer = parse_time(options.newer);
  if (!options.newer.empty() && !wanted->newer) {
    return refuse(console, options.newer,
                  "not a time: seconds since 1970, or for example 2026-03-04T05:06:07Z");
  }
  if (options.nul && console.json) return refuse(console, "-0", "not together with --json");
  return kDone;
}

void print_file(const Console& console, bool nul, const std::string& path, const _po_t* record) {
  if (!console.json) {
    console.out << (nul ? path + '\0' : printable(path) + '\n');
    return;
  }
  const refhost::RecordFields fields = refhost::get_fields(record);
  nlohmann::ordered_json object;
  set_name(object, "path", path);
  object["size"] = fields.size;
  object["mtime"] = signed_time(fields.mtime);
  object["mtime_utc"] = file_time(fields.mtime);
  set_name(object, "poid", fields.poid);
  print_line(console, object);
}

}  // namespace

int find(const Console& console, const FindOptions& options) {
  const auto top = catalog_path(options.root, options.under);
  if (!top) return report_bad_path(console, options.under);
  Wanted wanted;
  const int understood = understand(console, options, &wanted);
  if (understood != kDone) return understood;
  CatalogScan scan(console);
  const auto visit = [&](const Console& own, const CatalogPath& directory, const DirPager&) {
    const std::string above = directory.inner() + "/";
    scan.read_rows(own, directory, wanted.condition,
                   [&](const std::string& name, const _po_t* record) {
                     if (!wanted.admits(record)) return;
                     print_file(own, options.nul, above + name, record);
                   });
  };
  const bool walked = scan.walk_by_threads(*top, visit);
  return walked ? scan.exit_status() : kFailed;
}

}  // namespace cli
