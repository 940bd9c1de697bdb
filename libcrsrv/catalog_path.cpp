// What catalog paths mean.
#include <algorithm>

#include "host/files.h"
#include "libcrsrv/common.h"

namespace {

bool exists(const std::string& path) { return zel_access(path.c_str(), 0) == 0; }

// Whether the path goes exactly three levels below its last component "catalog".
bool lies_three_levels_below_catalog(const std::string& path) {
  constexpr std::ptrdiff_t kSlashes = 4;  // two around "catalog", one before each deeper level
  const std::size_t start = path.rfind("/catalog/");
  if (start == std::string::npos) return false;
  std::string levels = path.substr(start);
  // One final slash says nothing; a second one would, intended.
  if (levels.back() == '/') levels.pop_back();
  return std::count(levels.begin(), levels.end(), '/') == kSlashes;
}

}  // namespace

bool IsPodbPath(const std::string& path) {
  if (exists(path + "/po.db")) return true;
  return exists(path) && lies_three_levels_below_catalog(path);
}

int basename2backupid(const std::string& basename, std::string& backupid, std::string& image) {
  backupid = basename;
  image = basename;
  return 0;
}
