// Daemons and threads.
#include "libcrsrv/common.h"

#include <unistd.h>

#include <array>

#include "host/daemon.h"
#include "host/files.h"
#include "host/log.h"

namespace {

// The host's functions get a buffer of their own.
using LockDirectory = std::array<char, 4096>;

LockDirectory lock_directory() {
  LockDirectory buffer{};
  zelstrcpy(buffer.data(), "/var/run", buffer.size());
  return buffer;
}

// The status of the host function that has just failed; a failure that left no reason behind is one
// all the same.
cr_status_t mapped_failure(const char* function, int line) {
  const cr_status_t status = _crMapError(function, "libcrsrv/common", line);
  return status == CR_STATUS_OK ? CR_STATUS_FAILED : status;
}

// Daemons keep no other directory in use. Without access to either they stay where they are.
void change_to_working_directory() {
  constexpr int kReadWriteSearch = 7;
  for (const char* directory : {"/tmp", "/var/tmp"}) {
    if (zel_access(directory, kReadWriteSearch) == 0 && chdir(directory) == 0) return;
  }
}

class ThreadAttributes {
 public:
  ThreadAttributes() { pthread_attr_init(&attributes_); }  // cannot fail on this platform
  ThreadAttributes(const ThreadAttributes&) = delete;
  ThreadAttributes& operator=(const ThreadAttributes&) = delete;
  ~ThreadAttributes() { pthread_attr_destroy(&attributes_); }

  pthread_attr_t* get() { return &attributes_; }

 private:
  pthread_attr_t attributes_{};
};

}  // namespace

cr_status_t SDDaemonActive(const char* name) {
  if (DaemonLockSimpleTest(lock_directory().data(), name) == 0) return CR_STATUS_OK;
  const cr_status_t status = mapped_failure(__func__, __LINE__);
  if (status == CR_STATUS_HELD) {
    const char* pid = DaemonLockSimpleRead();
    // The newline is intended.
    ErrorA(status, "%s: a conflicting instance is currently active (pid = %s)\n", name,
           pid != nullptr ? pid : "");
  } else {
    ErrorA(status, "%s: lock test failure (%s).", name, CRStatusToStringA(status));
  }
  return status;
}

cr_status_t SDDaemonStart(const char* name, int flag) {
  const cr_status_t active = SDDaemonActive(name);
  if (active != CR_STATUS_OK) return active;
  if (DaemonInit(flag != 0) != 0) {
    const cr_status_t status = mapped_failure(__func__, __LINE__);
    ErrorA(status, "%s: cannot become daemon (%s)", name, CRStatusToStringA(status));
    return status;
  }
  // Only now, so that the lock records the daemon's own pid.
  if (DaemonLockSimple(lock_directory().data(), name) != 0) {
    const cr_status_t status = mapped_failure(__func__, __LINE__);
    ErrorA(status, "%s: cannot become daemon: lock creation failure (%s)", name,
           CRStatusToStringA(status));
    return status;
  }
  if (flag == 0) change_to_working_directory();
  if (TraceOn()) __Trace("Daemon started, PID = %u", static_cast<unsigned int>(getpid()));
  return CR_STATUS_OK;
}

int SDThreadCreate(pthread_t* thread, void* (*start)(void*), void* arg, std::size_t stack_size,
                   int detached) {
  ThreadAttributes attributes;
  pthread_attr_setdetachstate(attributes.get(),
                              detached == 1 ? PTHREAD_CREATE_DETACHED : PTHREAD_CREATE_JOINABLE);
  // A refused size leaves the default in place, intended.
  if (stack_size != 0) pthread_attr_setstacksize(attributes.get(), stack_size);
  return pthread_create(thread, attributes.get(), start, arg);
}
