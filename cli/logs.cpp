#include "cli/logs.h"

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/catalog.h"
#include "cli/dir_list.h"
#include "cli/json.h"
#include "host/files.h"
#include "libcrsrv/common.h"

namespace cli {
namespace {

// What would be lost: a database is an old file, too. Empty when there is none. What cannot be read
// cannot be cleaned either.
std::string catalog_file(const std::string& directory, bool recursive) {
  DirPager entries(directory);
  while (const DirEntry* entry = entries.next()) {
    std::string path = directory + "/" + entry->name;
    if (entry->kind == EntryKind::file && is_reserved_name(entry->name)) return path;
    if (entry->kind != EntryKind::directory || !recursive) continue;
    std::string found = catalog_file(path, recursive);
    if (!found.empty()) return found;
  }
  return "";
}

void print_cleaned(const Console& console, const std::string& directory) {
  if (!console.json) {
    console.out << "cleaned " << printable(directory) << '\n';
    return;
  }
  nlohmann::ordered_json object;
  set_name(object, "cleaned", directory);
  print_line(console, object);
}

}  // namespace

int logs_clean(const Console& console, const LogsCleanOptions& options) {
  if (options.days <= 0 && (options.empty_days <= 0 || !options.key.empty())) {
    console.err << "pocatalog: --days 0 is no limit: nothing would be removed\n";
    return kUsage;
  }
  const std::string& directory = options.directory;
  if (!wa_isdir(directory.c_str())) {
    report(console, directory, CR_STATUS_NOT_FOUND, "is no directory");
    return kFailed;
  }
  // The directory itself may be a link, which the walk does not follow.
  const std::string kept = catalog_file(absolute_root(directory), options.recursive);
  if (!kept.empty()) {
    report(console, kept, CR_STATUS_OK, "nothing was cleaned: this is a file of a catalog");
    return kFailed;
  }
  const int descend = options.recursive ? 1 : 0;
  if (options.key.empty()) {
    SDCleanLogs(directory.c_str(), options.days, descend, options.empty_days, nullptr);
  } else {
    SDCleanKeyLogs(directory.c_str(), options.key.c_str(), options.days, descend);
  }
  print_cleaned(console, directory);
  return kDone;
}

}  // namespace cli
