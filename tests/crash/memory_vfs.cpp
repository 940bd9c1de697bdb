// SQLite's file system, and the host's functions by which the library looks at its files, over the
// disk in use. As on Unix, a sync of a journal syncs the directory as well, and that of a database
// does not; an empty file counts as missing.
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstring>

#include "host/files.h"
#include "tests/crash/memory_disk.h"

namespace {

MemoryDisk* disk_in_use = nullptr;

std::shared_ptr<MemoryDisk::File> find(const char* name) {
  const auto found = disk_in_use->names.find(name);
  return found != disk_in_use->names.end() ? found->second : nullptr;
}

struct OpenFile {
  sqlite3_file base;
  MemoryDisk* disk;
  std::shared_ptr<MemoryDisk::File> file;
  bool is_journal;
};

OpenFile& opened(sqlite3_file* file) { return *reinterpret_cast<OpenFile*>(file); }
std::string& content_of(sqlite3_file* file) { return opened(file).file->now; }
int changed(sqlite3_file* file) { return opened(file).disk->changed(), SQLITE_OK; }

int read_file(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
  const std::string& content = content_of(file);
  const auto size = static_cast<std::size_t>(amount);
  const auto start = std::min(static_cast<std::size_t>(offset), content.size());
  const std::size_t there = content.copy(static_cast<char*>(out), size, start);
  std::memset(static_cast<char*>(out) + there, 0, size - there);
  return there == size ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int write_file(sqlite3_file* file, const void* bytes, int amount, sqlite3_int64 offset) {
  const auto at = static_cast<std::size_t>(offset), size = static_cast<std::size_t>(amount);
  std::string& content = content_of(file);
  content.resize(std::max(content.size(), at + size));
  content.replace(at, size, static_cast<const char*>(bytes), size);
  return changed(file);
}

int truncate_file(sqlite3_file* file, sqlite3_int64 size) {
  content_of(file).resize(static_cast<std::size_t>(size));
  return changed(file);
}

int sync_file(sqlite3_file* file, int) {
  OpenFile& to = opened(file);
  to.disk->sync(*to.file);
  if (to.is_journal) to.disk->sync_names();
  return SQLITE_OK;
}

sqlite3_io_methods make_methods() {
  sqlite3_io_methods made{};
  made.iVersion = 1;
  made.xRead = read_file, made.xWrite = write_file, made.xTruncate = truncate_file;
  made.xSync = sync_file;
  made.xClose = [](sqlite3_file* file) { return opened(file).~OpenFile(), SQLITE_OK; };
  made.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
    return *size = static_cast<sqlite3_int64>(content_of(file).size()), SQLITE_OK;
  };
  made.xLock = made.xUnlock = [](sqlite3_file*, int) { return SQLITE_OK; };
  made.xCheckReservedLock = [](sqlite3_file*, int* is) { return *is = 0, SQLITE_OK; };
  made.xFileControl = [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; };
  made.xSectorSize = [](sqlite3_file*) { return 4096; };
  made.xDeviceCharacteristics = [](sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; };
  return made;
}

int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  static const sqlite3_io_methods methods = make_methods();
  file->pMethods = nullptr;
  if (name == nullptr) return SQLITE_CANTOPEN;  // nothing here is so large as to need it
  std::shared_ptr<MemoryDisk::File> found = find(name);
  if (found == nullptr && (flags & SQLITE_OPEN_CREATE) == 0) return SQLITE_CANTOPEN;
  if (found == nullptr) {
    found = disk_in_use->names[name] = std::make_shared<MemoryDisk::File>();
    disk_in_use->changed();
  }
  const bool is_journal = (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0;
  new (file) OpenFile{{&methods}, disk_in_use, found, is_journal};
  if (out_flags != nullptr) *out_flags = flags;
  return SQLITE_OK;
}

int register_vfs() {
  static sqlite3_vfs vfs = *sqlite3_vfs_find(nullptr);
  vfs.iVersion = 1, vfs.szOsFile = sizeof(OpenFile), vfs.zName = "memory disk";
  vfs.xOpen = open_file;
  vfs.xDelete = [](sqlite3_vfs*, const char* name, int sync_names) {
    if (wa_deletefile(name) != CR_STATUS_OK) return SQLITE_IOERR_DELETE_NOENT;
    if (sync_names != 0) disk_in_use->sync_names();
    return SQLITE_OK;
  };
  vfs.xAccess = [](sqlite3_vfs*, const char* name, int, int* exists) {
    const auto found = find(name);
    return *exists = found != nullptr && !found->now.empty(), SQLITE_OK;
  };
  vfs.xFullPathname = [](sqlite3_vfs*, const char* name, int size, char* out) {
    return sqlite3_snprintf(size, out, "%s", name), SQLITE_OK;
  };
  return sqlite3_vfs_register(&vfs, 1);
}

}  // namespace

void use_disk(MemoryDisk* disk) {
  static const int registered = register_vfs();
  disk_in_use = registered == SQLITE_OK ? disk : nullptr;
}

cr_status_t wa_stat(const char* path, struct stat* out) {
  const auto found = find(path);
  if (found == nullptr) return CR_STATUS_NOT_FOUND;
  *out = {};
  out->st_mode = S_IFREG | 0600;
  out->st_size = static_cast<off_t>(found->now.size());
  return CR_STATUS_OK;
}

cr_status_t wa_access(const char* path, int) {
  return find(path) != nullptr ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
}

cr_status_t wa_deletefile(const char* path) {
  if (disk_in_use->names.erase(path) == 0) return CR_STATUS_NOT_FOUND;
  disk_in_use->changed();
  return CR_STATUS_OK;
}

cr_status_t wa_createtree(const char*, unsigned int) { return CR_STATUS_OK; }
