// The compliance clock and where it comes from.
#include <array>
#include <cerrno>
#include <fstream>
#include <mutex>
#include <string>

#include "host/files.h"
#include "host/log.h"
#include "host/status.h"
#include "libcrsrv/quillmisc.h"
#include "podb/retention.h"

namespace {

constexpr const char* kFakeClockMarker = "/etc/tarn/fake-compliance-clock";
constexpr const char* kMountPointFile = "/etc/tarn/worm";
constexpr const char* kDefaultMountPoint = "/opt/halyard/arbor-manage/worm";

constexpr const char* kOperation = "get_compclk";

std::mutex m_lock;

// Guarded by m_lock; empty until discovered, never changed afterwards. No string, which would be
// destroyed: threads may still read the clock while the process exits.
std::array<char, 4096> mount_point{};

bool exists(const char* path) { return zel_access(path, 0) == 0; }

// A first line too long for a path counts as none.
void discover_mount_point() {
  decltype(mount_point) line{};
  std::ifstream file(kMountPointFile);
  const bool found = file.getline(line.data(), line.size()) && exists(line.data());
  zelstrcpy(mount_point.data(), found ? line.data() : kDefaultMountPoint, mount_point.size());
}

std::string known_mount_point() {
  const std::lock_guard<std::mutex> lock(m_lock);
  if (mount_point.front() == '\0') discover_mount_point();
  return mount_point.data();
}

cr_status_t log_clock_failure(const std::string& mount, int reason) {
  if (reason == EOPNOTSUPP) {
    ErrorA(CR_STATUS_NOT_PROVIDED, "%s: compliance clock is not enabled", kOperation);
    return CR_STATUS_NOT_PROVIDED;
  }
  ErrorA(CR_STATUS_FAILED, "%s: fail to get compliance clock on mount point (%s), errno=%d",
         kOperation, mount.c_str(), reason);
  return CR_STATUS_FAILED;
}

// `errno` tells why the clock's call failed, its result does not: what an earlier call left there
// must not decide.
cr_status_t read_file_system_clock(timeval& clock) {
  const std::string mount = known_mount_point();
  if (!exists(mount.c_str())) {
    ErrorA(CR_STATUS_NOT_PROVIDED, "%s: compliance clock mount point is not existing", kOperation);
    return CR_STATUS_NOT_PROVIDED;
  }
  errno = 0;
  if (quill_get_compclk(&clock, mount.c_str()) == 0) return CR_STATUS_OK;
  return log_clock_failure(mount, errno);
}

}  // namespace

int get_compclk(timeval* now) {
  if (now == nullptr) return CR_STATUS_BAD_ARG;
  timeval clock{};
  if (exists(kFakeClockMarker)) {
    gettimeofday(&clock, nullptr);  // cannot fail with an address of ours
  } else {
    const cr_status_t status = read_file_system_clock(clock);
    if (status != CR_STATUS_OK) return status;
  }
  now->tv_sec = clock.tv_sec;
  now->tv_usec = 0;  // the compliance clock has whole seconds, and both look alike
  return CR_STATUS_OK;
}
