#include "cli/ls.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>
#include <utility>

#include "cli/catalog_scan.h"
#include "cli/dir_list.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/row_pager.h"

namespace cli {
namespace {

nlohmann::ordered_json json_of(const refhost::RecordFields& fields) {
  nlohmann::ordered_json object;
  object["type"] = fields.type == PO_TYPE_DIR ? "directory" : "file";
  object["mode"] = fmt::format("{:#o}", fields.mode);
  set_name(object, "owner", fields.owner);
  object["size"] = fields.size;
  object["mtime"] = signed_time(fields.mtime);
  object["mtime_utc"] = file_time(fields.mtime);
  object["immutable"] = (fields.special_flags & SF_IMMUTABLE) != 0;
  object["retention_lock"] = (fields.special_flags & SF_RETENTION_LOCK) != 0;
  return object;
}

// A name, and where it stands when more than one directory is listed.
struct Place {
  std::string name;
  const std::string* directory;  // null: it goes without saying
};

void print_json(const Console& console, nlohmann::ordered_json object, const Place& place) {
  if (place.directory != nullptr) set_name(object, "directory", *place.directory);
  set_name(object, "name", place.name);
  print_line(console, object);
}

void print_entry(const Console& console, const Place& place, const _po_t* record) {
  const refhost::RecordFields fields = refhost::get_fields(record);
  if (console.json) return print_json(console, json_of(fields), place);
  console.out << fmt::format("{} {:>11} {:>12} {:>20} {} {}\n", mode_letters(fields),
                             printable(fields.owner), fields.size, file_time(fields.mtime),
                             flag_letters(fields.special_flags), printable(place.name));
}

void print_damaged(const Console& console, const Place& place) {
  if (console.json) return print_json(console, {{"type", "damaged"}}, place);
  console.out << fmt::format("{:<60} {}\n", "(damaged: see pocatalog verify)",
                             printable(place.name));
}

// Lists one directory: merges its rows and its subdirectories.
class Listing {
 public:
  Listing(const Console& console, const CatalogPath& directory, DirPager names, bool of_many)
      : console_(console),
        directory_(directory),
        inner_(directory.inner()),
        of_many_(of_many),
        rows_(directory),
        entries_(std::move(names)) {}

  int run() {
    const Row* row = next_row();
    const DirEntry* below = next_subdirectory();
    while (row != nullptr || below != nullptr) {
      if (row == nullptr || (below != nullptr && below->name <= row->name)) {
        print_subdirectory(below->name);
        below = next_subdirectory();
      } else {
        print_row(*row);
        row = next_row();
      }
    }
    return conclude();
  }

 private:
  Place place(const std::string& name) const { return {name, of_many_ ? &inner_ : nullptr}; }

  bool is_root() const { return directory_.components.empty(); }

  const Row* next_row() { return is_root() ? nullptr : rows_.next(); }

  // In the root of the catalog, only data stores are its own.
  const DirEntry* next_subdirectory() {
    const DirEntry* entry = entries_.next();
    while (entry != nullptr && (entry->kind != EntryKind::directory ||
                                (is_root() && !parse_dsid(entry->name).has_value()))) {
      entry = entries_.next();
    }
    return entry;
  }

  void print_row(const Row& row) {
    if (row.entry != nullptr) return print_entry(console_, place(row.name), row.entry->record());
    print_damaged(console_, place(row.name));
    damaged_ = true;
  }

  void print_subdirectory(const std::string& name) {
    std::unique_ptr<DirPO> entry;
    const cr_status_t status = read_found_directory(directory_.child(name), &entry);
    if (status == CR_STATUS_OK) return print_entry(console_, place(name), entry->record());
    if (status == CR_STATUS_NOT_FOUND) return;  // removed meanwhile
    print_damaged(console_, place(name));
    damaged_ = true;
  }

  int conclude() {
    for (const cr_status_t status : {rows_.status(), entries_.status()}) {
      if (status == CR_STATUS_OK) continue;
      if (of_many_ && !is_there(directory_.full())) return kDone;  // removed meanwhile
      report(console_, directory_.full(), status, "cannot be read");
      return status == CR_STATUS_CORRUPT ? kInconsistent : kFailed;
    }
    if (!is_root() && rows_.has_nameless_rows()) {
      report(console_, directory_.full(), CR_STATUS_OK, "has rows without a usable name");
      damaged_ = true;
    }
    return damaged_ ? kInconsistent : kDone;
  }

  const Console& console_;
  const CatalogPath& directory_;
  const std::string inner_;
  const bool of_many_;
  RowPager rows_;
  DirPager entries_;
  bool damaged_ = false;
};

int list_file(const Console& console, const CatalogPath& path) {
  std::unique_ptr<FilePO> entry;
  const cr_status_t status = read_file(path, &entry);
  if (status != CR_STATUS_OK) return report_unread(console, path, status);
  print_entry(console, {path.leaf(), nullptr}, entry->record());
  return kDone;
}

int list_with_path(const Console& console, const CatalogPath& directory, const DirPager& names,
                   bool is_first) {
  const std::string path = directory.components.empty() ? "." : printable(directory.inner());
  if (!console.json) console.out << (is_first ? "" : "\n") << path << ":\n";
  return Listing(console, directory, names, true).run();
}

int list_all(const Console& console, const CatalogPath& top) {
  CatalogScan scan(console);
  const bool is_root = top.components.empty();  // which no walk visits
  if (is_root) scan.count(top.full(), list_with_path(console, top, DirPager(top.full()), true));
  const std::size_t depth = top.components.size();
  const auto visit = [&](const Console& own, const CatalogPath& path, const DirPager& names) {
    const bool is_first = !is_root && path.components.size() == depth;
    scan.count(path.full(), list_with_path(own, path, names, is_first));
  };
  const bool walked = scan.walk_by_threads(top, visit);
  return walked ? scan.exit_status() : kFailed;
}

}  // namespace

int ls(const Console& console, const LsOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path) return report_bad_path(console, options.path);
  const cr_status_t status = check_directory(*path);
  if (status == CR_STATUS_OK && options.recursive) return list_all(console, *path);
  if (status == CR_STATUS_OK) return Listing(console, *path, DirPager(path->full()), false).run();
  if (path->components.empty() || status != CR_STATUS_NOT_FOUND || names_directory(options.path)) {
    report(console, path->full(), status, unreached_text(status));
    return kFailed;
  }
  return list_file(console, *path);
}

}  // namespace cli
