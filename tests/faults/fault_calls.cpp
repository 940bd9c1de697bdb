// The calls of the C library that the host makes for files, and the allocations of SQLite, of the
// library's own C functions, and of C++.
#include <fcntl.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "tests/faults/fault.h"
#include "tests/support/failing_new.h"

namespace {

// Makes the call unless a fault strikes; SQLite's own calls pass.
template <Fault... faults, typename... Arguments>
int call(long number, Arguments... arguments) {
  for (const Fault fault : {faults...}) {
    if (passing_on || !strikes(fault)) continue;
    errno = fault == Fault::DiskFull ? ENOSPC : fault == Fault::CannotOpen ? EMFILE : EIO;
    return -1;
  }
  return static_cast<int>(syscall(number, arguments...));
}

constexpr mode_t kMode = 0644;  // of every file that is created here

sqlite3_mem_methods real_memory;

void* sqlite_malloc(int size) {
  return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xMalloc(size);
}

void* sqlite_realloc(void* memory, int size) {
  return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xRealloc(memory, size);
}

}  // namespace

#pragma GCC visibility push(default)  // the host is a shared library
extern "C" {

int access(const char* path, int mode) noexcept {
  return call<Fault::IoError>(SYS_faccessat, AT_FDCWD, path, mode);
}
int stat(const char* path, struct stat* out) noexcept {
  return call<Fault::IoError>(SYS_newfstatat, AT_FDCWD, path, out, 0);
}
int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  return call<Fault::IoError, Fault::DiskFull>(SYS_mkdirat, directory, name, mode);
}
int openat(int directory, const char* name, int flags, ...) {
  return call<Fault::CannotOpen>(SYS_openat, directory, name, flags, kMode);
}
int renameat(int from, const char* old_name, int to, const char* new_name) noexcept {
  return call<Fault::IoError, Fault::DiskFull>(SYS_renameat2, from, old_name, to, new_name, 0);
}
ssize_t write(int file, const void* bytes, size_t size) {
  return call<Fault::IoError, Fault::DiskFull>(SYS_write, file, bytes, size);
}
int fsync(int file) { return call<Fault::FailedSync>(SYS_fsync, file); }
int unlink(const char* path) noexcept {
  return call<Fault::FailedDelete>(SYS_unlinkat, AT_FDCWD, path, 0);
}

// The linker leads the calls of this program's objects here.
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);

void* __wrap_malloc(size_t size) { return strikes(Fault::CMemory) ? nullptr : __real_malloc(size); }

void* __wrap_calloc(size_t count, size_t size) {
  return strikes(Fault::CMemory) ? nullptr : __real_calloc(count, size);
}

}  // extern "C"
#pragma GCC visibility pop

// SQLite keeps no store of small blocks of its own: every allocation counts.
void use_faulty_memory() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real_memory);
  sqlite3_mem_methods faulty = real_memory;
  faulty.xMalloc = sqlite_malloc;
  faulty.xRealloc = sqlite_realloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty);
  sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
  allocation_fails = [] { return strikes(Fault::CppMemory); };
}
