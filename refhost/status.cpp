#include "host/status.h"

#include <cerrno>

#include "refhost/fail_internal.h"

namespace {

struct StatusText {
  cr_status_t status;
  const char* text;
};

constexpr StatusText kTexts[] = {
    {CR_STATUS_OK, "success"},
    {CR_STATUS_HELD, "not permitted, or held by a live process"},
    {CR_STATUS_NOT_FOUND, "not found"},
    {CR_STATUS_EXISTS, "already exists"},
    {CR_STATUS_FAILED, "operation failed"},
    {CR_STATUS_BAD_ARG, "invalid argument"},
    {CR_STATUS_BUSY, "busy or locked"},
    {CR_STATUS_NO_RECORD, "record could not be made"},
    {CR_STATUS_UNSUPPORTED, "not supported"},
    {CR_STATUS_LOCK_LOWERED, "retention lock would be lowered"},
    {CR_STATUS_IO_ERROR, "input/output error"},
    {CR_STATUS_NO_MEMORY, "out of memory"},
    {CR_STATUS_BAD_DATA, "unusable data"},
    {CR_STATUS_NO_LOCATION, "entry has no location"},
    {CR_STATUS_CORRUPT, "database is corrupt"},
    {CR_STATUS_NOT_PROVIDED, "not provided by this store"},
    {CR_STATUS_UNAVAILABLE, "function is not available"},
    {CR_STATUS_BAD_RECORD, "invalid record"},
    {CR_STATUS_NOT_EMPTY, "not empty"},
    {CR_STATUS_IMMUTABLE, "entry is immutable"},
    {CR_STATUS_NONE, "no status"},
};

struct ErrnoStatus {
  int error;
  cr_status_t status;
};

// Every other reason is CR_STATUS_FAILED. EPERM is what a held daemon lock leaves behind. ENOTDIR
// is not "not found": something is in the way, and that must not pass for an absent file.
constexpr ErrnoStatus kErrnoStatuses[] = {
    {0, CR_STATUS_OK},
    {EPERM, CR_STATUS_HELD},
    {ENOENT, CR_STATUS_NOT_FOUND},
    {EEXIST, CR_STATUS_EXISTS},
    {EINVAL, CR_STATUS_BAD_ARG},
    {ENAMETOOLONG, CR_STATUS_BAD_ARG},
    {EAGAIN, CR_STATUS_BUSY},
    {EBUSY, CR_STATUS_BUSY},
    {EIO, CR_STATUS_IO_ERROR},
    {ENOMEM, CR_STATUS_NO_MEMORY},
    {EOPNOTSUPP, CR_STATUS_UNAVAILABLE},
    {ENOSYS, CR_STATUS_UNAVAILABLE},
};

cr_status_t status_of(int error) {
  for (const ErrnoStatus& entry : kErrnoStatuses) {
    if (entry.error == error) return entry.status;
  }
  return CR_STATUS_FAILED;
}

}  // namespace

cr_status_t* __cr_errno_location() {
  thread_local cr_status_t cell = CR_STATUS_OK;
  return &cell;
}

const char* CRStatusToStringA(cr_status_t status) {
  for (const StatusText& entry : kTexts) {
    if (entry.status == status) return entry.text;
  }
  return "unknown status";
}

cr_status_t _crMapError(const char* /*function*/, const char* /*source*/, int /*line*/) {
  return status_of(errno);
}

namespace refhost {

cr_status_t fail_errno() { return fail(errno == 0 ? CR_STATUS_FAILED : status_of(errno)); }

cr_status_t fail_argument() {
  errno = EINVAL;
  return fail_errno();
}

}  // namespace refhost
