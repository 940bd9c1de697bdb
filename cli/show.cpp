#include "cli/show.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

// What there is to say about an entry.
struct Shown {
  std::string path;
  std::string full_path;
  std::string poid;
  bool default_record = false;            // a directory without a record of its own
  std::optional<std::uint32_t> checksum;  // of a file's row
  std::vector<refhost::NamedField> fields;
  refhost::RecordFields values;
};

// The checksum that the row has: reading it compared the two.
std::optional<std::uint32_t> row_checksum(const FilePO& entry) {
  const std::string name = POGetBasename(entry.record());
  const std::string poid = POGetHashRef(entry.record());
  FilePO stored(entry);
  std::string content;
  if (stored.remove_info() != CR_STATUS_OK || stored.to_string(content) != CR_STATUS_OK) {
    return std::nullopt;
  }
  return SQLitePODB::calculate_crc(name.c_str(), poid.c_str(), content.c_str());
}

Shown describe(const CatalogPath& path, const PO& entry) {
  Shown shown;
  shown.path = path.inner();
  shown.full_path = path.full();
  shown.fields = refhost::named_fields(entry.record());
  shown.values = refhost::get_fields(entry.record());
  shown.poid = shown.values.poid;
  if (const auto* file = dynamic_cast<const FilePO*>(&entry))
    shown.checksum = row_checksum(*file);
  else
    shown.default_record = !has_record(path.full());
  return shown;
}

// The time that a field says, for those that say one.
std::optional<std::string> time_of(const Shown& shown, const std::string& field) {
  if (field == "mtime") return file_time(shown.values.mtime);
  if (field == "ctime") return file_time(shown.values.ctime);
  if (field == "atime") return utc_time(shown.values.atime);  // the end of a lock
  return std::nullopt;
}

void print_json(const Console& console, const Shown& shown) {
  nlohmann::ordered_json object;
  set_name(object, "path", shown.path);
  set_name(object, "full_path", shown.full_path);
  object["poid"] = shown.poid;
  if (shown.checksum) object["row_checksum"] = *shown.checksum;
  object["default_record"] = shown.default_record;
  nlohmann::ordered_json record;
  for (const refhost::NamedField& field : shown.fields) {
    set_name(record, field.name, field.text);
    const auto time = time_of(shown, field.name);
    if (time) record[std::string(field.name) + "_utc"] = *time;
  }
  object["record"] = record;
  print_line(console, object);
}

void print_text(const Console& console, const Shown& shown) {
  const auto line = [&console](const std::string& name, const std::string& value) {
    console.out << (value.empty() ? name : fmt::format("{:<14}  ", name) + value) << '\n';
  };
  line("path", printable(shown.path));
  line("full path", printable(shown.full_path));
  line("POID", printable(shown.poid));
  if (shown.checksum) line("row checksum", fmt::format("{0} (0x{0:08x})", *shown.checksum));
  if (shown.default_record) line("record", "none of its own: the default of directories");
  for (const refhost::NamedField& field : shown.fields) {
    const auto time = time_of(shown, field.name);
    line(field.name, printable(field.text) + (time ? " (" + *time + ")" : ""));
  }
}

}  // namespace

int show(const Console& console, const ShowOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path || path->components.empty()) return report_bad_path(console, options.path);
  std::unique_ptr<PO> entry;
  const cr_status_t status = read_entry(*path, names_directory(options.path), &entry);
  if (status != CR_STATUS_OK) return report_unread(console, *path, status);
  const Shown shown = describe(*path, *entry);
  console.json ? print_json(console, shown) : print_text(console, shown);
  return kDone;
}

}  // namespace cli
