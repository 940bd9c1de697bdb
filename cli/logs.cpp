#include "cli/logs.h"

#include <unistd.h>

#include <nlohmann/json.hpp>
#include <ostream>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "cli/dir_list.h"
#include "cli/json.h"
#include "host/files.h"
#include "libcrsrv/common.h"

namespace cli {
namespace {

// What is known of a tree before it is cleaned.
struct Examined {
  std::string catalog_file;  // one that would be lost, a database is an old file, too; or empty
  std::vector<std::string> closed;  // directories whose files cannot be listed or removed
};

bool is_closed(const std::string& directory) {
  return zel_access(directory.c_str(), R_OK | W_OK | X_OK) != 0;
}

// Looks at what a cleanup would: not at hidden directories.
void examine(const std::string& directory, bool recursive, Examined* found) {
  if (is_closed(directory)) found->closed.push_back(directory);
  DirPager entries(directory);
  while (const DirEntry* entry = entries.next()) {
    const std::string path = directory + "/" + entry->name;
    if (entry->kind == EntryKind::file && is_reserved_name(entry->name)) found->catalog_file = path;
    const bool below = entry->kind == EntryKind::directory && entry->name.front() != '.';
    if (below && recursive) examine(path, recursive, found);
    if (!found->catalog_file.empty()) return;
  }
}

// Nothing to be cleaned that way: 0, or the exit status after it was said why.
int refuse(const Console& console, const LogsCleanOptions& options) {
  if (options.days <= 0 && (options.empty_days <= 0 || !options.key.empty())) {
    console.err << "pocatalog: --days 0 is no limit: nothing would be removed\n";
    return kUsage;
  }
  if (options.directory.empty() || absolute_root(options.directory).empty()) {
    console.err << "pocatalog: DIR is empty, or the root of the file system\n";
    return kUsage;
  }
  if (wa_isdir(options.directory.c_str())) return kDone;
  report(console, options.directory, CR_STATUS_NOT_FOUND, "is no directory");
  return kFailed;
}

void clean(const LogsCleanOptions& options) {
  const char* directory = options.directory.c_str();
  const int descend = options.recursive ? 1 : 0;
  if (options.key.empty()) {
    SDCleanLogs(directory, options.days, descend, options.empty_days, nullptr);
  } else {
    SDCleanKeyLogs(directory, options.key.c_str(), options.days, descend);
  }
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
  const int refused = refuse(console, options);
  if (refused != kDone) return refused;
  // The directory itself may be a link, which the walk does not follow.
  Examined found;
  examine(absolute_root(options.directory), options.recursive, &found);
  if (!found.catalog_file.empty()) {
    report(console, found.catalog_file, CR_STATUS_OK,
           "nothing was cleaned: this is a file of a catalog");
    return kFailed;
  }
  clean(options);
  // The cleanup itself says nothing of what it could not do.
  for (const std::string& directory : found.closed) {
    report(console, directory, CR_STATUS_OK,
           "not cleaned: its files cannot be listed or removed by this user");
  }
  print_cleaned(console, options.directory);
  return found.closed.empty() ? kDone : kIncomplete;
}

}  // namespace cli
