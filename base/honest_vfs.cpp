#include "base/honest_vfs_internal.h"

#include <sqlite3.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>

namespace base {

namespace {

// The methods of a kind of file, with our read in place of the system's.
struct Methods : sqlite3_io_methods {
  const sqlite3_io_methods* usual = nullptr;
};

int read_honestly(sqlite3_file* file, void* bytes, int size, sqlite3_int64 at) {
  const auto* methods = static_cast<const Methods*>(file->pMethods);
  const int code = methods->usual->xRead(file, bytes, size, at);
  return code == SQLITE_IOERR_CORRUPTFS ? SQLITE_IOERR_READ : code;
}

// All but reading and looking is the system's. Lives as long as the process: SQLite, connections
// and threads may outlast whoever opened the first.
class HonestVfs {
 public:
  static HonestVfs& the() {
    static HonestVfs vfs;
    return vfs;
  }

  const char* name();

 private:
  bool enlist();
  int open(const char* name, sqlite3_file* file, int flags, int* opened);
  int look(const char* path, int flags, int* found);
  const sqlite3_io_methods* with_our_read(const sqlite3_io_methods* usual);

  std::mutex mutex_;  // guards what follows; once registered, only kinds_ changes
  bool registered_ = false;
  sqlite3_vfs* system_ = sqlite3_vfs_find(nullptr);
  std::array<char, 64> name_ = {};
  sqlite3_vfs vfs_ = {};
  std::array<Methods, 4> kinds_ = {};
};

const char* HonestVfs::name() {
  const std::lock_guard<std::mutex> lock(mutex_);
  sqlite3_vfs* const usual = sqlite3_vfs_find(nullptr);
  if (usual != nullptr && std::strcmp(usual->zName, "unix") != 0) return nullptr;
  if (!registered_) {
    // A name of its own: the command has a copy of this beside the library's.
    std::snprintf(name_.data(), name_.size(), "pocatalog-%p", static_cast<void*>(this));
    system_ = usual;
    registered_ = usual != nullptr && enlist();
  }
  return name_.data();
}

bool HonestVfs::enlist() {
  vfs_ = *system_;
  vfs_.pNext = nullptr;
  vfs_.zName = name_.data();
  vfs_.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* opened) {
    return the().open(name, file, flags, opened);
  };
  vfs_.xAccess = [](sqlite3_vfs*, const char* path, int flags, int* found) {
    return the().look(path, flags, found);
  };
  return sqlite3_vfs_register(&vfs_, 0) == SQLITE_OK;
}

int HonestVfs::open(const char* name, sqlite3_file* file, int flags, int* opened) {
  const int code = system_->xOpen(system_, name, file, flags, opened);
  if (code == SQLITE_OK) file->pMethods = with_our_read(file->pMethods);
  return code;
}

// The system's tells only whether it could look.
int HonestVfs::look(const char* path, int flags, int* found) {
  errno = 0;
  const int code = system_->xAccess(system_, path, flags, found);
  const bool is_absent = errno == 0 || errno == ENOENT || errno == ENOTDIR;
  const bool is_known = flags != SQLITE_ACCESS_EXISTS || *found != 0 || is_absent;
  return code != SQLITE_OK || is_known ? code : SQLITE_IOERR_ACCESS;
}

// The system has two kinds of files: with locks, and without.
const sqlite3_io_methods* HonestVfs::with_our_read(const sqlite3_io_methods* usual) {
  constexpr int kNewest = 3;  // of the tables that are copied whole
  const std::lock_guard<std::mutex> lock(mutex_);
  for (Methods& kind : kinds_) {
    if (kind.usual == nullptr) {
      static_cast<sqlite3_io_methods&>(kind) = *usual;
      kind.iVersion = std::min(kind.iVersion, kNewest);
      kind.xRead = read_honestly;
      kind.usual = usual;
    }
    if (kind.usual == usual) return &kind;
  }
  return usual;
}

}  // namespace

const char* honest_vfs() { return HonestVfs::the().name(); }

}  // namespace base
