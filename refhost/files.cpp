#include "host/files.h"

#include <unistd.h>

#include "refhost/fail_internal.h"

namespace {

// A path that is null has the system answer EFAULT, which is the caller's fault as well.
cr_status_t status_of_call(int result) {
  return result == 0 ? CR_STATUS_OK : refhost::fail_errno();
}

// Below something that is no directory, nothing is there.
cr_status_t status_of_look(int result) {
  if (result != 0 && errno == ENOTDIR) errno = ENOENT;
  return status_of_call(result);
}

}  // namespace

cr_status_t wa_access(const char* path, int mode) {
  if (path == nullptr) return refhost::fail_argument();
  return status_of_look(access(path, mode));
}

cr_status_t wa_stat(const char* path, struct stat* out) {
  if (path == nullptr || out == nullptr) return refhost::fail_argument();
  return status_of_look(stat(path, out));
}

bool wa_isdir(const char* path) {
  struct stat attributes {};
  return path != nullptr && stat(path, &attributes) == 0 && S_ISDIR(attributes.st_mode);
}

cr_status_t wa_deletefile(const char* path) {
  if (path == nullptr) return refhost::fail_argument();
  return status_of_call(unlink(path));
}

int zel_access(const char* path, int mode) { return refhost::zero_or_refuse(access(path, mode)); }

int zel_unlink(const char* path) { return refhost::zero_or_refuse(unlink(path)); }

int zel_rmdir(const char* path) { return refhost::zero_or_refuse(rmdir(path)); }
