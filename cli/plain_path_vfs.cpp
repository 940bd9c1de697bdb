#include "cli/plain_path_vfs.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstddef>
#include <cstring>

#include "base/honest_vfs_internal.h"

namespace cli {
namespace {

bool is_plain(const char* path) {
  struct stat found = {};
  return path[0] == '/' && lstat(path, &found) == 0 && !S_ISLNK(found.st_mode);
}

int take_plain_path(sqlite3_vfs*, const char* path, int size, char* out) {
  const std::size_t needed = std::strlen(path) + 1;
  if (static_cast<std::size_t>(size) < needed || !is_plain(path)) {
    sqlite3_vfs* const usual = sqlite3_vfs_find(base::honest_vfs());
    return usual->xFullPathname(usual, path, size, out);
  }
  std::memcpy(out, path, needed);
  return SQLITE_OK;
}

// All but the paths is the library's. Lives as long as the process, as SQLite wants it.
class PlainPaths {
 public:
  PlainPaths() {
    const sqlite3_vfs* const usual = sqlite3_vfs_find(base::honest_vfs());
    if (usual == nullptr) return;
    vfs_ = *usual;
    vfs_.pNext = nullptr;
    vfs_.zName = kName;
    vfs_.xFullPathname = take_plain_path;
    registered_ = sqlite3_vfs_register(&vfs_, 0) == SQLITE_OK;
  }

  const char* name() const { return registered_ ? kName : base::honest_vfs(); }

 private:
  static constexpr const char* kName = "pocatalog-plain-path";

  sqlite3_vfs vfs_ = {};
  bool registered_ = false;
};

}  // namespace

const char* plain_path_vfs() {
  static PlainPaths paths;
  return paths.name();
}

}  // namespace cli
