// SQLite's files, and those that the library looks for, on the disk in use. One connection at a
// time opens a file, so there are no locks. As on Unix, the first sync of a new journal syncs the
// directory as well, and that of a new database does not.
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <new>

#include "host/files.h"
#include "tests/crash/memory_disk.h"

namespace {

MemoryDisk* disk_in_use = nullptr;

struct OpenFile {
  sqlite3_file base;
  MemoryDisk* disk;
  MemoryDisk::FilePtr file;
  bool sync_names;
};

OpenFile& opened(sqlite3_file* file) { return *reinterpret_cast<OpenFile*>(file); }

int close_file(sqlite3_file* file) {
  opened(file).~OpenFile();
  return SQLITE_OK;
}

int read_file(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
  const std::string& content = opened(file).file->now;
  const auto size = static_cast<std::size_t>(amount);
  const auto start = std::min(static_cast<std::size_t>(offset), content.size());
  const std::size_t there = content.copy(static_cast<char*>(out), size, start);
  std::memset(static_cast<char*>(out) + there, 0, size - there);
  return there == size ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int write_file(sqlite3_file* file, const void* bytes, int amount, sqlite3_int64 offset) {
  const OpenFile& to = opened(file);
  to.disk->write(to.file, static_cast<std::size_t>(offset),
                 std::string(static_cast<const char*>(bytes), static_cast<std::size_t>(amount)));
  return SQLITE_OK;
}

int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
  const OpenFile& to = opened(file);
  to.disk->truncate(to.file, static_cast<std::size_t>(size));
  return SQLITE_OK;
}

int sync_file(sqlite3_file* file, int) {
  OpenFile& to = opened(file);
  to.disk->sync(to.file);
  if (to.sync_names) to.disk->sync_names();
  to.sync_names = false;
  return SQLITE_OK;
}

int file_size(sqlite3_file* file, sqlite3_int64* size) {
  *size = static_cast<sqlite3_int64>(opened(file).file->now.size());
  return SQLITE_OK;
}

int lock_file(sqlite3_file*, int) { return SQLITE_OK; }

int check_reserved(sqlite3_file*, int* reserved) {
  *reserved = 0;
  return SQLITE_OK;
}

int control_file(sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; }

int sector_size(sqlite3_file*) { return 4096; }

int characteristics(sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; }

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  static const sqlite3_io_methods methods = [] {
    sqlite3_io_methods made{};
    made.iVersion = 1;
    made.xClose = close_file, made.xRead = read_file, made.xWrite = write_file;
    made.xTruncate = truncate_file, made.xSync = sync_file, made.xFileSize = file_size;
    made.xLock = lock_file, made.xUnlock = lock_file, made.xCheckReservedLock = check_reserved;
    made.xFileControl = control_file, made.xSectorSize = sector_size;
    made.xDeviceCharacteristics = characteristics;
    return made;
  }();
  file->pMethods = nullptr;
  if (name == nullptr) return SQLITE_CANTOPEN;  // nothing here is so large as to need it
  auto found = disk_in_use->find(name);
  const bool is_new = found == nullptr;
  if (is_new && (flags & SQLITE_OPEN_CREATE) != 0) found = disk_in_use->create(name);
  if (found == nullptr) return SQLITE_CANTOPEN;
  const bool syncs_names = is_new && (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0;
  new (file) OpenFile{{&methods}, disk_in_use, found, syncs_names};
  if (out_flags != nullptr) *out_flags = flags;
  return SQLITE_OK;
}

int delete_file(sqlite3_vfs*, const char* name, int sync_names) {
  if (disk_in_use->find(name) == nullptr) return SQLITE_IOERR_DELETE_NOENT;
  disk_in_use->remove(name);
  if (sync_names != 0) disk_in_use->sync_names();
  return SQLITE_OK;
}

int access_file(sqlite3_vfs*, const char* name, int, int* exists) {
  const auto found = disk_in_use->find(name);
  *exists = found != nullptr && !found->now.empty() ? 1 : 0;  // as on Unix
  return SQLITE_OK;
}

int full_path(sqlite3_vfs*, const char* name, int size, char* out) {
  sqlite3_snprintf(size, out, "%s", name);
  return SQLITE_OK;
}

void register_vfs() {
  static sqlite3_vfs vfs = *sqlite3_vfs_find(nullptr);
  vfs.iVersion = 1, vfs.szOsFile = sizeof(OpenFile), vfs.zName = "memory disk";
  vfs.xOpen = open_file, vfs.xDelete = delete_file, vfs.xAccess = access_file;
  vfs.xFullPathname = full_path;
  sqlite3_vfs_register(&vfs, 1);
}

}  // namespace

void use_disk(MemoryDisk* disk) {
  static const bool registered = (register_vfs(), true);
  static_cast<void>(registered);
  disk_in_use = disk;
}

// The host's functions by which the library looks at its files.
cr_status_t wa_access(const char* path, int) {
  return disk_in_use->find(path) != nullptr ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
}

cr_status_t wa_stat(const char* path, struct stat* out) {
  const auto found = disk_in_use->find(path);
  if (found == nullptr) return CR_STATUS_NOT_FOUND;
  *out = {};
  out->st_mode = S_IFREG | 0600;
  out->st_size = static_cast<off_t>(found->now.size());
  return CR_STATUS_OK;
}

cr_status_t wa_deletefile(const char* path) {
  if (disk_in_use->find(path) == nullptr) return CR_STATUS_NOT_FOUND;
  disk_in_use->remove(path);
  return CR_STATUS_OK;
}

cr_status_t wa_createtree(const char*, unsigned int) { return CR_STATUS_OK; }
