// The calls of the C library that the host makes for files.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>

#include "tests/faults/fault.h"

namespace {

// Refuses what the host calls; SQLite's own calls pass.
bool refused(Fault fault, int error) {
  if (passing_on || !strikes(fault)) return false;
  errno = error;
  return true;
}

}  // namespace

#pragma GCC visibility push(default)  // the host is a shared library
extern "C" {

int access(const char* path, int mode) noexcept {
  if (refused(Fault::IoError, EIO)) return -1;
  return static_cast<int>(syscall(SYS_faccessat, AT_FDCWD, path, mode));
}

int stat(const char* path, struct stat* out) noexcept {
  if (refused(Fault::IoError, EIO)) return -1;
  return static_cast<int>(syscall(SYS_newfstatat, AT_FDCWD, path, out, 0));
}

int mkdirat(int directory, const char* name, mode_t mode) noexcept {
  if (refused(Fault::IoError, EIO) || refused(Fault::DiskFull, ENOSPC)) return -1;
  return static_cast<int>(syscall(SYS_mkdirat, directory, name, mode));
}

int openat(int directory, const char* name, int flags, ...) {
  if (refused(Fault::CannotOpen, EMFILE)) return -1;
  constexpr mode_t kMode = 0644;  // of every file that is created here
  return static_cast<int>(syscall(SYS_openat, directory, name, flags, kMode));
}

int renameat(int from, const char* old_name, int to, const char* new_name) noexcept {
  if (refused(Fault::IoError, EIO) || refused(Fault::DiskFull, ENOSPC)) return -1;
  return static_cast<int>(syscall(SYS_renameat2, from, old_name, to, new_name, 0));
}

ssize_t write(int file, const void* bytes, size_t size) {
  if (refused(Fault::IoError, EIO) || refused(Fault::DiskFull, ENOSPC)) return -1;
  return syscall(SYS_write, file, bytes, size);
}

int fsync(int file) {
  if (refused(Fault::FailedSync, EIO)) return -1;
  return static_cast<int>(syscall(SYS_fsync, file));
}

int unlink(const char* path) noexcept {
  if (refused(Fault::FailedDelete, EIO)) return -1;
  return static_cast<int>(syscall(SYS_unlinkat, AT_FDCWD, path, 0));
}

}  // extern "C"
#pragma GCC visibility pop
