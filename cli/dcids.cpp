#include "cli/dcids.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/catalog_scan.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/list_reader.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

int print_list(const Console& console, UDCIDRecord* list) {
  unsigned long container = 0;
  unsigned long bytes = 0;
  std::uint64_t total = 0;
  for (unsigned int index = 0; list->get_next(container, bytes, index) == CR_STATUS_OK;) {
    total += bytes;
    if (console.json) {
      print_line(console, {{"dcid", container}, {"bytes", bytes}});
    } else {
      console.out << fmt::format("{:>20} {:>20}\n", container, bytes);
    }
  }
  if (!console.json) {
    console.out << fmt::format("{}, {} bytes\n", counted(list->ndcid, "container"), total);
  }
  return kDone;
}

int fail(const Console& console, const std::string& place, cr_status_t status,
         const std::string& text) {
  report(console, place, status, text);
  return kFailed;
}

int list_of_file(const Console& console, const CatalogPath& path) {
  std::unique_ptr<FilePO> entry;
  cr_status_t status = read_file(path, &entry);
  if (status == CR_STATUS_NOT_FOUND) {
    return fail(console, path.full(), status, "no such file in the catalog");
  }
  if (status != CR_STATUS_OK) return report_unread(console, path, status);
  const std::string poid = refhost::get_fields(entry->record()).poid;
  if (poid.empty()) return fail(console, path.full(), CR_STATUS_OK, "the entry names no content");
  UDCIDRecord list;
  status = read_list(path.parent(), poid, &list);
  if (status == CR_STATUS_OK) return print_list(console, &list);
  report(console, path.full(), status, "its content has no readable list of containers");
  const bool inconsistent =
      status == CR_STATUS_BAD_DATA || (status == CR_STATUS_NOT_FOUND && entry->udcid_qualified());
  return inconsistent ? kInconsistent : kFailed;
}

int list_of_content(const Console& console, const std::string& root, const std::string& poid) {
  CatalogScan scan(console);
  UDCIDRecord list;
  bool found = false;
  const bool walked =
      scan.walk({absolute_root(root), {}}, [&](const Console&, const CatalogPath& directory) {
        if (found) return;
        const cr_status_t status = read_list(directory, poid, &list);
        const std::string file = directory.child(SQLiteULDB::dbfilename()).full();
        found = status == CR_STATUS_OK;
        if (status == CR_STATUS_BAD_DATA) {
          scan.damaged(console, file, "its list of this content is damaged");
        } else if (!found && status != CR_STATUS_NOT_FOUND) {
          scan.unread(console, file, status);
        }
      });
  if (!walked) return kFailed;
  if (found) return print_list(console, &list);
  if (scan.exit_status() != kDone) return scan.exit_status();
  return fail(console, poid, CR_STATUS_NOT_FOUND, "no list of containers of this content");
}

}  // namespace

int dcids(const Console& console, const DcidsOptions& options) {
  if (POIDStringValidate(options.content.c_str())) {
    return list_of_content(console, options.root, options.content);
  }
  const auto path = catalog_path(options.root, options.content);
  if (!path || path->components.empty()) return report_bad_path(console, options.content);
  return list_of_file(console, *path);
}

}  // namespace cli
