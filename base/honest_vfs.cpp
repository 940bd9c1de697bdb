#include "base/honest_vfs_internal.h"

#include <sqlite3.h>

#include <array>
#include <cstdio>
#include <mutex>

namespace base {

namespace {

// The methods of a kind of file, with our read in place of the usual one.
struct Methods : sqlite3_io_methods {
  const sqlite3_io_methods* usual = nullptr;
};

int read_honestly(sqlite3_file* file, void* bytes, int size, sqlite3_int64 at) {
  const auto* methods = static_cast<const Methods*>(file->pMethods);
  const int code = methods->usual->xRead(file, bytes, size, at);
  return code == SQLITE_IOERR_CORRUPTFS ? SQLITE_IOERR_READ : code;
}

// All but the reads is the usual one's. Unregistered with the library, which may be unloaded before
// SQLite is.
class HonestVfs {
 public:
  HonestVfs() {
    if (usual_ == nullptr) return;
    std::snprintf(name_.data(), name_.size(), "pocatalog-%p", static_cast<void*>(this));
    vfs_ = *usual_;
    vfs_.pNext = nullptr;
    vfs_.zName = name_.data();
    vfs_.xOpen = [](sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* opened) {
      return the().open(name, file, flags, opened);
    };
    registered_ = sqlite3_vfs_register(&vfs_, 0) == SQLITE_OK;
  }
  HonestVfs(const HonestVfs&) = delete;
  HonestVfs& operator=(const HonestVfs&) = delete;
  ~HonestVfs() {
    if (registered_) sqlite3_vfs_unregister(&vfs_);
  }

  static HonestVfs& the() {
    static HonestVfs vfs;
    return vfs;
  }

  const char* name() const { return registered_ ? vfs_.zName : nullptr; }

 private:
  int open(const char* name, sqlite3_file* file, int flags, int* opened) {
    const int code = usual_->xOpen(usual_, name, file, flags, opened);
    if (code == SQLITE_OK) file->pMethods = with_our_read(file->pMethods);
    return code;
  }

  // A VFS has a few kinds of files, with and without locks; one too many stays as it is.
  const sqlite3_io_methods* with_our_read(const sqlite3_io_methods* usual) {
    const std::lock_guard<std::mutex> lock(mutex_);
    for (Methods& kind : kinds_) {
      if (kind.usual == nullptr) {
        static_cast<sqlite3_io_methods&>(kind) = *usual;
        kind.xRead = read_honestly;
        kind.usual = usual;
      }
      if (kind.usual == usual) return &kind;
    }
    return usual;
  }

  sqlite3_vfs* const usual_ = sqlite3_vfs_find(nullptr);
  std::array<char, 64> name_ = {};  // its own: the command has a copy of this beside the library's
  sqlite3_vfs vfs_ = {};
  bool registered_ = false;

  std::mutex mutex_;  // guards what follows
  std::array<Methods, 8> kinds_ = {};
};

}  // namespace

const char* honest_vfs() { return HonestVfs::the().name(); }

}  // namespace base
