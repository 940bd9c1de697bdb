#include "cli/catalog.h"

#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdint>
#include <filesystem>
#include <string_view>

#include "cli/cause.h"
#include "po/dir_po.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// SQLite refuses a path that is not this much shorter than its limit of 512 bytes.
constexpr std::size_t kLongestDatabasePath = 512 - std::string_view("-journal").size();

constexpr std::array<std::string_view, 4> kDatabaseSuffixes = {"", "-journal", "-wal", "-shm"};

bool is_database_file(const std::string& name, const std::string& database) {
  return std::any_of(
      kDatabaseSuffixes.begin(), kDatabaseSuffixes.end(),
      [&](std::string_view suffix) { return name == database + std::string(suffix); });
}

}  // namespace

std::string absolute_root(const std::string& root) {
  std::error_code failure;
  std::string found = std::filesystem::weakly_canonical(root, failure).string();
  if (failure || found.empty() || found.front() != '/') {
    found = std::filesystem::absolute(root, failure).lexically_normal().string();
  }
  while (!found.empty() && found.back() == '/') found.pop_back();
  return found;
}

std::string CatalogPath::inner() const {
  std::string joined;
  for (const std::string& component : components) {
    if (!joined.empty()) joined += '/';
    joined += component;
  }
  return joined;
}

std::string CatalogPath::full() const {
  return components.empty() && !root.empty() ? root : root + '/' + inner();
}

CatalogPath CatalogPath::parent() const {
  return {root, {components.begin(), components.end() - 1}};
}

CatalogPath CatalogPath::child(const std::string& name) const {
  CatalogPath below = *this;
  below.components.push_back(name);
  return below;
}

std::optional<unsigned int> CatalogPath::dsid() const {
  return components.empty() ? std::nullopt : parse_dsid(components.front());
}

std::optional<CatalogPath> catalog_path(const std::string& root, const std::string& path) {
  CatalogPath split{absolute_root(root), {}};
  std::size_t start = 0;
  while (start < path.size()) {
    const std::size_t end = std::min(path.find('/', start), path.size());
    const std::string component = path.substr(start, end - start);
    if (component == "." || component == "..") return std::nullopt;
    if (!component.empty()) split.components.push_back(component);
    start = end + 1;
  }
  if (!split.components.empty() && !split.dsid()) return std::nullopt;
  return split;
}

std::optional<unsigned int> parse_dsid(const std::string& name) {
  std::uint32_t dsid = 0;
  const char* end = name.data() + name.size();
  const auto parsed = std::from_chars(name.data(), end, dsid);
  if (parsed.ec != std::errc() || parsed.ptr != end) return std::nullopt;
  // One number has one directory: "05" would not be found again.
  if (name.size() > 1 && name.front() == '0') return std::nullopt;
  return dsid;
}

bool is_reserved_name(const std::string& name) {
  return name == DirPO::recordfilename() || name == "__dsinfo__" || name == "__dsinfo__.lock" ||
         is_database_file(name, SQLitePODB::dbfilename()) ||
         is_database_file(name, SQLiteULDB::dbfilename());
}

bool database_path_fits(const std::string& directory) {
  return directory.size() + 1 + SQLitePODB::dbfilename().size() <= kLongestDatabasePath;
}

cr_status_t check_directory(const CatalogPath& path) {
  CatalogPath part{path.root, {}};
  for (std::size_t depth = 0; depth <= path.components.size(); ++depth) {
    if (depth > 0) part.components.push_back(path.components[depth - 1]);
    struct stat found = {};
    if (lstat(part.full().c_str(), &found) != 0) return status_of_errno("lstat");
    if (!S_ISDIR(found.st_mode)) return CR_STATUS_NOT_FOUND;
  }
  return CR_STATUS_OK;
}

const char* unreached_text(cr_status_t status) {
  return status == CR_STATUS_NOT_FOUND ? "no such directory" : "the directory cannot be reached";
}

bool is_there(const std::string& path) {
  struct stat found = {};
  return lstat(path.c_str(), &found) == 0;
}

cr_status_t status_of_errno(const char* function) {
  const cr_status_t status = _crMapError(function, "cli", 0);
  return keep_errno_of(status == CR_STATUS_OK ? CR_STATUS_FAILED : status);
}

}  // namespace cli
