#include "tests/crash/memory_disk.h"

#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstring>
#include <utility>

#include "host/files.h"

namespace {

constexpr std::size_t kSector = 512;

void overwrite(std::string& content, std::size_t offset, const std::string& bytes) {
  content.resize(std::max(content.size(), offset + bytes.size()));
  content.replace(offset, bytes.size(), bytes);
}

// Of each sector nothing, everything or the beginning; it may be allocated and not filled.
void write_sectors(const MemoryDisk::Change& change, std::string& content, std::mt19937& random) {
  for (std::size_t at = 0; at < change.text.size();) {
    const std::size_t offset = change.offset + at;
    const std::size_t size = std::min(change.text.size() - at, kSector - offset % kSector);
    const std::size_t kept = random() % 8 == 0 ? random() % size : random() % 2 * size;
    if (kept > 0) overwrite(content, offset, change.text.substr(at, kept));
    if (random() % 4 == 0) content.resize(std::max(content.size(), offset + size));
    at += size;
  }
}

MemoryDisk* disk_in_use = nullptr;

struct OpenFile {
  sqlite3_file base;
  MemoryDisk* disk;
  MemoryDisk::FilePtr file;
  bool sync_names;
};

OpenFile& opened(sqlite3_file* file) { return *reinterpret_cast<OpenFile*>(file); }

int read_file(sqlite3_file* file, void* out, int amount, sqlite3_int64 offset) {
  const std::string& content = opened(file).file->now;
  const auto size = static_cast<std::size_t>(amount);
  const auto start = std::min(static_cast<std::size_t>(offset), content.size());
  const std::size_t there = content.copy(static_cast<char*>(out), size, start);
  std::memset(static_cast<char*>(out) + there, 0, size - there);
  return there == size ? SQLITE_OK : SQLITE_IOERR_SHORT_READ;
}

int change_file(sqlite3_file* file, MemoryDisk::Kind kind, sqlite3_int64 at, std::string bytes) {
  const OpenFile& to = opened(file);
  to.disk->make({kind, to.file, static_cast<std::size_t>(at), std::move(bytes)});
  return SQLITE_OK;
}

int sync_file(sqlite3_file* file, int) {
  OpenFile& to = opened(file);
  to.disk->sync(to.file);
  if (std::exchange(to.sync_names, false)) to.disk->sync_names();
  return SQLITE_OK;
}

sqlite3_io_methods make_methods() {
  sqlite3_io_methods made{};
  made.iVersion = 1;
  made.xClose = [](sqlite3_file* file) { return opened(file).~OpenFile(), SQLITE_OK; };
  made.xRead = read_file;
  made.xWrite = [](sqlite3_file* file, const void* bytes, int size, sqlite3_int64 at) {
    return change_file(file, MemoryDisk::kWrite, at,
                       {static_cast<const char*>(bytes), size_t(size)});
  };
  made.xTruncate = [](sqlite3_file* file, sqlite3_int64 size) {
    return change_file(file, MemoryDisk::kTruncation, size, "");
  };
  made.xSync = sync_file;
  made.xFileSize = [](sqlite3_file* file, sqlite3_int64* size) {
    return *size = static_cast<sqlite3_int64>(opened(file).file->now.size()), SQLITE_OK;
  };
  made.xLock = made.xUnlock = [](sqlite3_file*, int) { return SQLITE_OK; };
  made.xCheckReservedLock = [](sqlite3_file*, int* is) { return *is = 0, SQLITE_OK; };
  made.xFileControl = [](sqlite3_file*, int, void*) { return SQLITE_NOTFOUND; };
  made.xSectorSize = [](sqlite3_file*) { return 4096; };
  made.xDeviceCharacteristics = [](sqlite3_file*) { return SQLITE_IOCAP_POWERSAFE_OVERWRITE; };
  return made;
}

// As on Unix, the first sync of a new journal syncs the directory as well, and that of a new
// database does not.
int open_file(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out_flags) {
  static const sqlite3_io_methods methods = make_methods();
  file->pMethods = nullptr;
  if (name == nullptr) return SQLITE_CANTOPEN;  // nothing here is so large as to need it
  auto found = disk_in_use->find(name);
  const bool is_new = found == nullptr;
  if (is_new && (flags & SQLITE_OPEN_CREATE) == 0) return SQLITE_CANTOPEN;
  if (is_new) {
    found = std::make_shared<MemoryDisk::File>();
    disk_in_use->make({MemoryDisk::kNaming, found, 0, name});
  }
  const bool sync_names = is_new && (flags & SQLITE_OPEN_MAIN_JOURNAL) != 0;
  new (file) OpenFile{{&methods}, disk_in_use, found, sync_names};
  if (out_flags != nullptr) *out_flags = flags;
  return SQLITE_OK;
}

int delete_file(sqlite3_vfs*, const char* name, int sync_names) {
  if (wa_deletefile(name) != CR_STATUS_OK) return SQLITE_IOERR_DELETE_NOENT;
  if (sync_names != 0) disk_in_use->sync_names();
  return SQLITE_OK;
}

// An empty file does not exist, as on Unix.
int access_file(sqlite3_vfs*, const char* name, int, int* exists) {
  const auto found = disk_in_use->find(name);
  *exists = found != nullptr && !found->now.empty() ? 1 : 0;
  return SQLITE_OK;
}

int full_path(sqlite3_vfs*, const char* name, int size, char* out) {
  return sqlite3_snprintf(size, out, "%s", name), SQLITE_OK;
}

int register_vfs() {
  static sqlite3_vfs vfs = *sqlite3_vfs_find(nullptr);
  vfs.iVersion = 1, vfs.szOsFile = sizeof(OpenFile), vfs.zName = "memory disk";
  vfs.xOpen = open_file, vfs.xDelete = delete_file, vfs.xAccess = access_file;
  vfs.xFullPathname = full_path;
  return sqlite3_vfs_register(&vfs, 1);
}

}  // namespace

MemoryDisk::FilePtr MemoryDisk::find(const std::string& name) const {
  const auto found = names_.find(name);
  return found != names_.end() ? found->second : nullptr;
}

void MemoryDisk::make(Change change) {
  apply(change, names_, change.file);
  unsynced_.push_back(std::move(change));
  changed();
}

void MemoryDisk::sync(const FilePtr& file) {
  const auto reached = [&](const Change& change) {
    return change.kind >= kTruncation && change.file == file;
  };
  const auto end = unsynced_.end();
  if (syncs) {
    file->synced = file->now;
    unsynced_.erase(std::remove_if(unsynced_.begin(), end, reached), end);
  }
  changed();
}

void MemoryDisk::sync_names() {
  const auto reached = [](const Change& change) { return change.kind < kTruncation; };
  const auto end = unsynced_.end();
  if (syncs) {
    synced_names_ = names_;
    unsynced_.erase(std::remove_if(unsynced_.begin(), end, reached), end);
  }
  changed();
}

void MemoryDisk::apply(const Change& change, Names& names, const FilePtr& file) {
  if (change.kind == kNaming) names[change.text] = file;
  if (change.kind == kRemoval) names.erase(change.text);
  if (change.kind == kTruncation) file->now.resize(change.offset);
  if (change.kind == kWrite) overwrite(file->now, change.offset, change.text);
}

MemoryDisk MemoryDisk::after_power_loss(std::mt19937& random) const {
  MemoryDisk left;
  std::map<FilePtr, FilePtr> copies;
  const auto copy_of = [&](const FilePtr& file) {
    FilePtr& copy = copies[file];
    if (copy == nullptr) copy = std::make_shared<File>(File{file->synced, ""});
    return copy;
  };
  for (const auto& [name, file] : synced_names_) left.names_[name] = copy_of(file);
  const std::size_t all = unsynced_.size(), some = random() % (all + 1), kind = random() % 6;
  std::size_t spared = kind == 0 ? all : kind < 3 ? some : 0;  // so many, the oldest, survive
  const bool in_part = random() % 3 != 0;                      // the others do
  for (const Change& change : unsynced_) {
    const FilePtr file = copy_of(change.file);
    const bool whole = spared > 0 || (in_part && change.kind != kWrite && random() % 2 == 0);
    if (whole) apply(change, left.names_, file);
    if (!whole && in_part && change.kind == kWrite) write_sectors(change, file->now, random);
    spared -= spared > 0 ? 1 : 0;
  }
  for (const auto& [file, copy] : copies) copy->synced = copy->now;
  left.synced_names_ = left.names_;
  return left;
}

void use_disk(MemoryDisk* disk) {
  static const int registered = register_vfs();
  disk_in_use = registered == SQLITE_OK ? disk : nullptr;
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
  const auto found = disk_in_use->find(path);
  if (found == nullptr) return CR_STATUS_NOT_FOUND;
  disk_in_use->make({MemoryDisk::kRemoval, found, 0, path});
  return CR_STATUS_OK;
}

cr_status_t wa_createtree(const char*, unsigned int) { return CR_STATUS_OK; }
