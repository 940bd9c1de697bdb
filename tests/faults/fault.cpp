// The calls of the C library that SQLite and the host make for files, and everybody's allocations.
#include "tests/faults/fault.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <new>

namespace {

Fault armed;
bool is_armed = false, lasts = false, reached = false;
long left = 0;  // calls before the one that fails

// Whether the call at hand fails. Allocates nothing.
bool strikes(Fault fault) noexcept {
  if (!is_armed || armed != fault || left-- > 0 || (reached && !lasts)) return false;
  return reached = true;
}

int error_of(Fault fault) {
  if (fault == Fault::RefusedLock) return EAGAIN;
  return fault == Fault::DiskFull ? ENOSPC : fault == Fault::CannotOpen ? EMFILE : EIO;
}

// Makes the call unless a fault strikes.
template <typename... Arguments>
int call(std::initializer_list<Fault> faults, long number, Arguments... arguments) {
  const auto* const fault = std::find_if(faults.begin(), faults.end(), strikes);
  if (fault == faults.end()) return static_cast<int>(syscall(number, arguments...));
  errno = error_of(*fault);
  return -1;
}

std::atomic<long> live_blocks{0}, closed_beside_sqlite{0};
std::array<std::atomic<ino_t>, 1024> of_sqlite{};  // its open files, by descriptor

// Of what is no regular file, such as the directories that SQLite syncs: 0.
ino_t inode_of(int file) {
  struct stat64 found {};
  const bool regular = syscall(SYS_fstat, file, &found) == 0 && S_ISREG(found.st_mode);
  return regular ? found.st_ino ^ found.st_dev << 32U : 0;
}

void before_close(int file) {
  const ino_t inode = inode_of(file);
  if (inode == 0 || of_sqlite.at(static_cast<std::size_t>(file)).exchange(0) != 0) return;
  closed_beside_sqlite += std::count(of_sqlite.begin(), of_sqlite.end(), inode);
}

sqlite3_mem_methods real_memory;

}  // namespace

#pragma GCC visibility push(default)  // the host and SQLite are shared libraries
extern "C" {

int stat(const char* path, struct stat* out) noexcept {
  return call({Fault::IoError}, SYS_newfstatat, AT_FDCWD, path, out, 0);
}
int stat64(const char* path, struct stat64* out) noexcept {
  return call({Fault::FailedLook}, SYS_newfstatat, AT_FDCWD, path, out, 0);
}
int fstat64(int file, struct stat64* out) noexcept {
  return call({Fault::IoError}, SYS_fstat, file, out);
}
int openat(int directory, const char* name, int flags, ...) {
  return call({Fault::CannotOpen}, SYS_openat, directory, name, flags, 0644);
}
// SQLite's own.
int open64(const char* path, int flags, ...) {
  const int file = openat(AT_FDCWD, path, flags);
  if (file >= 0) of_sqlite.at(static_cast<std::size_t>(file)) = inode_of(file);
  return file;
}
int close(int file) {
  before_close(file);
  return call({}, SYS_close, file);
}
int fclose(FILE* stream) {
  static const auto real = reinterpret_cast<decltype(&fclose)>(dlsym(RTLD_NEXT, "fclose"));
  before_close(fileno(stream));
  return real(stream);
}
int renameat(int from, const char* old_name, int to, const char* new_name) noexcept {
  return call({Fault::IoError, Fault::DiskFull}, SYS_renameat2, from, old_name, to, new_name, 0);
}
ssize_t pread64(int file, void* bytes, size_t size, off64_t at) {
  if (strikes(Fault::ShortRead)) size = (size + 1) / 2;
  return call({Fault::IoError}, SYS_pread64, file, bytes, size, at);
}
ssize_t write(int file, const void* bytes, size_t size) {
  return call({Fault::IoError, Fault::DiskFull}, SYS_write, file, bytes, size);
}
ssize_t pwrite64(int file, const void* bytes, size_t size, off64_t at) {
  if (strikes(Fault::SwallowedWrite)) return static_cast<ssize_t>(size);
  const auto written = call({Fault::IoError, Fault::DiskFull}, SYS_pwrite64, file, bytes, size, at);
  if (written < 0) syscall(SYS_pwrite64, file, bytes, size / 2, at);
  return written;
}
int ftruncate64(int file, off64_t size) noexcept {
  return call({Fault::IoError}, SYS_ftruncate, file, size);
}
int fsync(int file) { return call({Fault::FailedSync}, SYS_fsync, file); }
int fdatasync(int file) { return call({Fault::FailedSync}, SYS_fdatasync, file); }
int unlink(const char* path) noexcept {
  return call({Fault::FailedDelete}, SYS_unlinkat, AT_FDCWD, path, 0);
}
// A lock that is lowered is granted always.
int fcntl64(int file, int command, ...) {
  va_list arguments;
  va_start(arguments, command);
  auto* const lock = va_arg(arguments, flock*);
  va_end(arguments);
  const bool raised = command == F_SETLK && lock->l_type != F_UNLCK &&
                      (lock->l_type == F_WRLCK || lock->l_len == 1);
  if (!raised) return call({}, SYS_fcntl, file, command, lock);
  return call({Fault::RefusedLock}, SYS_fcntl, file, command, lock);
}

// The linker leads the calls of this program's objects here.
void* __real_malloc(size_t size);
void* __wrap_malloc(size_t size) { return strikes(Fault::CMemory) ? nullptr : __real_malloc(size); }

}  // extern "C"
#pragma GCC visibility pop

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  void* const block = strikes(Fault::CppMemory) ? nullptr : __real_malloc(size);
  live_blocks += block != nullptr ? 1 : 0;
  return block;
}
void* operator new(std::size_t size) {
  if (void* const block = operator new(size, std::nothrow)) return block;
  throw std::bad_alloc();
}
void operator delete(void* block) noexcept {
  live_blocks -= block != nullptr ? 1 : 0;
  std::free(block);
}
void operator delete(void* block, std::size_t) noexcept { operator delete(block); }

// SQLite keeps no store of small blocks of its own: every allocation counts.
void use_faulty_memory() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real_memory);
  sqlite3_mem_methods faulty = real_memory;
  faulty.xMalloc = [](int size) {
    return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xMalloc(size);
  };
  faulty.xRealloc = [](void* memory, int size) {
    return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xRealloc(memory, size);
  };
  sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty);
  sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
}

void arm(Fault fault, long n, bool for_good) {
  armed = fault, left = n - 1, lasts = for_good, reached = false;
  is_armed = true;
}

bool disarm() {
  is_armed = false;
  return reached;
}

Held held() {
  const auto entries = [](const std::filesystem::path& directory) {
    return std::distance(std::filesystem::directory_iterator(directory), {});
  };
  return {live_blocks, entries("/proc/self/fd"), static_cast<long>(sqlite3_memory_used()),
          closed_beside_sqlite, entries(std::filesystem::temp_directory_path())};
}
