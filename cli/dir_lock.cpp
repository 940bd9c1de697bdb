#include "cli/dir_lock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "host/files.h"

namespace cli {
namespace {

constexpr useconds_t kPause = 20000;  // microseconds between looks at `stop`

// Whether the path still names what was locked: its owner may have deleted it while we waited.
bool still_named(const std::string& path, int directory) {
  struct stat locked {};
  struct stat named {};
  return fstat(directory, &locked) == 0 &&
         fstatat(AT_FDCWD, path.c_str(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         locked.st_dev == named.st_dev && locked.st_ino == named.st_ino;
}

cr_status_t create_under_parent(const std::string& top, const std::string& directory,
                                const std::atomic<bool>* stop) {
  DirLock parent(stop);
  const cr_status_t status = parent.lock_or_create(top, getdirname(directory));
  return status != CR_STATUS_OK ? status : keep_errno_of(wa_createtree(directory.c_str(), 0700));
}

}  // namespace

bool DirLock::take(int directory) {
  const int operation = stop_ == nullptr ? LOCK_EX : LOCK_EX | LOCK_NB;
  while (flock(directory, operation) != 0) {
    if (errno != EINTR && errno != EWOULDBLOCK) return false;
    stopped_ = stop_ != nullptr && *stop_;
    if (stopped_) return false;
    if (errno == EWOULDBLOCK) usleep(kPause);
  }
  return true;
}

cr_status_t DirLock::lock(const std::string& directory) {
  for (;;) {
    unlock();
    refhost::Fd opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!opened || !take(opened.get())) return status_of_errno("lock");
    if (!still_named(directory, opened.get())) continue;
    directory_ = std::move(opened);
    return CR_STATUS_OK;
  }
}

cr_status_t DirLock::lock_or_create(const std::string& top, const std::string& directory) {
  for (;;) {
    const cr_status_t status = lock(directory);
    if (status != CR_STATUS_NOT_FOUND || directory == top) return status;
    const cr_status_t created = create_under_parent(top, directory, stop_);
    if (created != CR_STATUS_OK) return created;
  }
}

}  // namespace cli
