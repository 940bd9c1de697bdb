// Daemons and their locks. A lock is an flock on `<directory>/<name>.pid`, whose text is the
// holder's pid. The kernel gives it back when the holder ends, however it ends, so the file may
// stay and its text alone means nothing.
#include "host/daemon.h"

#include <fcntl.h>
#include <sys/file.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "refhost/fail_internal.h"
#include "refhost/fd_internal.h"

namespace refhost {
namespace {

constexpr mode_t kPidFileMode = 0644;

thread_local std::string holder_pid;  // of the lock tested last; empty when nobody held it

// A lock's name is one component of a path. Leaves EINVAL in `errno` for one that is not.
bool is_valid(const char* directory, const char* name) {
  const bool valid =
      directory != nullptr && name != nullptr && *name != '\0' && std::strchr(name, '/') == nullptr;
  if (!valid) errno = EINVAL;
  return valid;
}

std::string lock_path(const char* directory, const char* name) {
  return std::string(directory) + "/" + name + ".pid";
}

bool lock_now(const Fd& file, int kind) { return flock(file.get(), kind | LOCK_NB) == 0; }

// Takes the lock for itself alone. Tests hold a shared lock for a moment, which must not pass for a
// live holder: while a shared lock can be had, nobody but tests is in the way.
bool lock_exclusively(const Fd& file) {
  constexpr int attempts = 1000;
  constexpr useconds_t pause = 1000;
  for (int i = 0; i < attempts; ++i) {
    if (lock_now(file, LOCK_EX)) return true;
    if (errno != EWOULDBLOCK || !lock_now(file, LOCK_SH)) return false;
    flock(file.get(), LOCK_UN);
    usleep(pause);
  }
  errno = EBUSY;
  return false;
}

bool write_pid(const Fd& file) {
  std::array<char, 16> text{};
  const int length = std::snprintf(text.data(), text.size(), "%d\n", getpid());
  return ftruncate(file.get(), 0) == 0 &&
         pwrite(file.get(), text.data(), static_cast<std::size_t>(length), 0) == length;
}

// Digits only: the text ends up in log lines.
std::string read_pid(const Fd& file) {
  std::array<char, 16> text{};
  if (pread(file.get(), text.data(), text.size() - 1, 0) < 0) return {};
  return std::string(text.data(), std::strspn(text.data(), "0123456789"));
}

// A lock that somebody has is told apart by EPERM, which maps to CR_STATUS_HELD.
int refuse_lock() {
  if (errno == EWOULDBLOCK) errno = EPERM;
  return zero_or_refuse(-1);
}

// The parent of a successful fork ends; its buffers were written out before, so that nothing is
// written twice.
bool continue_in_child() {
  const pid_t child = fork();
  if (child > 0) _exit(EXIT_SUCCESS);
  return child == 0;
}

// The device itself may have become one of the three, when that was closed before.
bool redirect_stdio(Fd& null_device) {
  for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    if (dup2(null_device.get(), fd) < 0) return false;
  }
  if (null_device.get() <= STDERR_FILENO) null_device.release();
  return true;
}

}  // namespace
}  // namespace refhost

// The second fork gives up the lead of the session, and with it the chance of ever getting a
// terminal again.
int DaemonInit(bool foreground) {
  if (foreground) return 0;
  refhost::Fd null_device(open("/dev/null", O_RDWR));
  std::fflush(nullptr);
  const bool detached = null_device && refhost::continue_in_child() && setsid() >= 0 &&
                        refhost::continue_in_child() && chdir("/") == 0 &&
                        refhost::redirect_stdio(null_device);
  return refhost::zero_or_refuse(detached ? 0 : -1);
}

int DaemonLockSimple(const char* directory, const char* name) {
  if (!refhost::is_valid(directory, name)) return refhost::zero_or_refuse(-1);
  refhost::Fd file(open(refhost::lock_path(directory, name).c_str(),
                        O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, refhost::kPidFileMode));
  if (!file || !refhost::lock_exclusively(file) || !refhost::write_pid(file)) {
    return refhost::refuse_lock();
  }
  file.release();  // stays open, and locked, until the process ends
  return 0;
}

int DaemonLockSimpleTest(const char* directory, const char* name) {
  refhost::holder_pid.clear();
  if (!refhost::is_valid(directory, name)) return refhost::zero_or_refuse(-1);
  const refhost::Fd file(
      open(refhost::lock_path(directory, name).c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  if (!file) return errno == ENOENT ? 0 : refhost::refuse_lock();
  if (refhost::lock_now(file, LOCK_SH)) return 0;
  if (errno == EWOULDBLOCK) {
    refhost::holder_pid = refhost::read_pid(file);
    errno = EWOULDBLOCK;
  }
  return refhost::refuse_lock();
}

const char* DaemonLockSimpleRead() {
  return refhost::holder_pid.empty() ? nullptr : refhost::holder_pid.c_str();
}
