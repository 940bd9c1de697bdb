// The state of the armed fault, and SQLite's default file system: the real one, with faults.
#include <sqlite3.h>
#include <unistd.h>

#include "tests/faults/fault.h"

namespace {

struct Armed {
  bool on = false;
  Fault fault{};
  long left = 0;  // calls before the one that fails
  bool for_good = false;
  bool reached = false;
};
Armed armed;

sqlite3_vfs* real_vfs = nullptr;

// The real file lies behind this one.
sqlite3_file* behind(sqlite3_file* file) { return file + 1; }

template <typename Call>
int passed(Call call) {
  passing_on = true;
  const int rc = call();
  passing_on = false;
  return rc;
}

// Calls one method of the real file.
template <auto Method, typename... Arguments>
int pass(sqlite3_file* file, Arguments... arguments) {
  return passed([&] { return (behind(file)->pMethods->*Method)(behind(file), arguments...); });
}

// As pass, unless `fault` strikes.
template <auto Method, Fault fault, int Code, typename... Arguments>
int guarded(sqlite3_file* file, Arguments... arguments) {
  return strikes(fault) ? Code : pass<Method>(file, arguments...);
}

// The unix file system's own call. Above it a short read means the end of the file, so what the
// kernel may do, less than it was asked for, is done here.
ssize_t short_pread(int file, void* buffer, size_t size, off_t at) {
  return pread(file, buffer, strikes(Fault::ShortRead) ? (size + 1) / 2 : size, at);
}

int write(sqlite3_file* file, const void* buffer, int size, sqlite3_int64 at) {
  if (strikes(Fault::SwallowedWrite)) return SQLITE_OK;
  const bool full = strikes(Fault::DiskFull);
  const bool failed = full || strikes(Fault::IoError);
  const int rc = pass<&sqlite3_io_methods::xWrite>(file, buffer, failed ? size / 2 : size, at);
  if (!failed) return rc;
  return full ? SQLITE_FULL : SQLITE_IOERR_WRITE;
}

// Nothing is lost with the power here, so nothing waits for the disk.
int sync(sqlite3_file*, int) { return strikes(Fault::FailedSync) ? SQLITE_IOERR_FSYNC : SQLITE_OK; }

using Methods = sqlite3_io_methods;
constexpr Methods kMethods = {
    1,
    pass<&Methods::xClose>,
    guarded<&Methods::xRead, Fault::IoError, SQLITE_IOERR_READ, void*, int, sqlite3_int64>,
    write,
    guarded<&Methods::xTruncate, Fault::IoError, SQLITE_IOERR_TRUNCATE, sqlite3_int64>,
    sync,
    guarded<&Methods::xFileSize, Fault::IoError, SQLITE_IOERR_FSTAT, sqlite3_int64*>,
    guarded<&Methods::xLock, Fault::RefusedLock, SQLITE_BUSY, int>,
    pass<&Methods::xUnlock, int>,
    pass<&Methods::xCheckReservedLock, int*>,
    pass<&Methods::xFileControl, int, void*>,
    pass<&Methods::xSectorSize>,
    pass<&Methods::xDeviceCharacteristics>,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr,
    nullptr};

int open(sqlite3_vfs*, const char* name, sqlite3_file* file, int flags, int* out) {
  file->pMethods = nullptr;
  if (strikes(Fault::CannotOpen)) return SQLITE_CANTOPEN;
  const int rc = passed([&] { return real_vfs->xOpen(real_vfs, name, behind(file), flags, out); });
  if (rc == SQLITE_OK) file->pMethods = &kMethods;
  return rc;
}

int remove(sqlite3_vfs*, const char* name, int sync_directory) {
  if (strikes(Fault::FailedDelete)) return SQLITE_IOERR_DELETE;
  const int rc = passed([&] { return real_vfs->xDelete(real_vfs, name, 0); });
  const bool synced = rc != SQLITE_OK || sync_directory == 0 || !strikes(Fault::FailedSync);
  return synced ? rc : SQLITE_IOERR_DIR_FSYNC;
}

int access(sqlite3_vfs*, const char* name, int flags, int* out) {
  if (strikes(Fault::IoError)) return SQLITE_IOERR_ACCESS;
  return passed([&] { return real_vfs->xAccess(real_vfs, name, flags, out); });
}

int sleep(sqlite3_vfs*, int microseconds) { return microseconds; }

sqlite3_vfs faulty_vfs;

}  // namespace

void arm(Fault fault, long n, bool for_good) { armed = {true, fault, n - 1, for_good, false}; }

bool disarm() {
  armed.on = false;
  return armed.reached;
}

bool strikes(Fault fault) noexcept {
  if (!armed.on || armed.fault != fault || armed.left-- > 0) return false;
  if (armed.reached && !armed.for_good) return false;
  return armed.reached = true;
}

void use_faulty_vfs() {
  real_vfs = sqlite3_vfs_find(nullptr);
  faulty_vfs = *real_vfs;
  faulty_vfs.zName = "faulty";
  faulty_vfs.szOsFile += static_cast<int>(sizeof(sqlite3_file));
  faulty_vfs.xOpen = open;
  faulty_vfs.xDelete = remove;
  faulty_vfs.xAccess = access;
  faulty_vfs.xSleep = sleep;
  for (const char* name : {"pread", "pread64"}) {
    real_vfs->xSetSystemCall(real_vfs, name, reinterpret_cast<sqlite3_syscall_ptr>(short_pread));
  }
  sqlite3_vfs_register(&faulty_vfs, 1);
}
