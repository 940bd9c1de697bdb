// Removing old logs.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <ctime>
#include <memory>

#include "host/files.h"
#include "host/log.h"
#include "libcrsrv/common.h"

namespace {

constexpr const char* kCleanLogs = "SDCleanLogs";
constexpr const char* kCleanKeyLogs = "SDCleanKeyLogs";

// A limit of 0 or less is none. In 64 bits: the largest limits reach far beyond the epoch.
bool is_older(const struct stat& file, int days) {
  constexpr std::int64_t kSecondsPerDay = 86400;
  return days > 0 && file.st_mtime < time(nullptr) - days * kSecondsPerDay;
}

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

// `flags` with O_NOFOLLOW refuse a symbolic link.
Directory opened(int parent, const char* name, int flags) {
  const int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | flags);
  if (fd < 0) return nullptr;
  Directory directory(fdopendir(fd));
  if (!directory) close(fd);
  return directory;
}

// By age alone.
struct AgeRule {
  int maxdays;
  int emptydays;
  int (*getdays)(const char* name);

  AgeRule below(const char* name) const {
    return {getdays != nullptr ? getdays(name) : maxdays, emptydays, getdays};
  }
  void trace_start(const char* path) const {
    if (TraceOn()) __Trace("%s: %s, maxdays=%d", kCleanLogs, path, maxdays);
  }
  static void trace_unreadable(const char* path, const char* reason) {
    if (TraceOn()) __Trace("%s: %s", path, reason);
  }
  bool takes(const char* path, const struct stat& file) const {
    const bool old = is_older(file, maxdays);
    const bool old_and_empty = file.st_size == 0 && is_older(file, emptydays);
    if (!old && !old_and_empty) return false;
    if (TraceOn()) __Trace("%s: expired", path);
    return true;
  }
};

// By age, where the path contains the key.
struct KeyRule {
  int maxdays;
  int descend;
  const char* key;

  KeyRule below(const char*) const { return *this; }
  void trace_start(const char* path) const {
    if (!TraceOn()) return;
    __Trace("%s: path=%s, key=%s, maxdays=%d, descend=%d", kCleanKeyLogs, path, key, maxdays,
            descend);
  }
  static void trace_unreadable(const char* path, const char* reason) {
    if (TraceOn()) __Trace("%s: %s: %s", kCleanKeyLogs, path, reason);
  }
  bool takes(const char* path, const struct stat& file) const {
    const bool taken = is_older(file, maxdays) && std::strstr(path, key) != nullptr;
    if (TraceOn()) __Trace("%s: %s: %s", kCleanKeyLogs, path, taken ? "expired" : "skipping");
    return taken;
  }
};

// One walk down a tree. Deletion fails, unseen, where somebody else was faster or a directory is
// not empty.
template <typename Rule>
class Walk {
 public:
  Walk(const char* path, bool descend) : path_(path), descend_(descend) {}

  void clean(const Rule& rule) { clean_directory(rule, AT_FDCWD, path_.c_str(), 0); }

 private:
  void clean_directory(const Rule& rule, int parent, const char* name, int flags) {
    rule.trace_start(path_.c_str());
    const Directory directory = opened(parent, name, flags);
    if (!directory) return Rule::trace_unreadable(path_.c_str(), std::strerror(errno));
    while (const dirent* entry = readdir(directory.get())) {
      if (entry->d_name[0] != '.') clean_entry(rule, dirfd(directory.get()), entry->d_name);
    }
  }

  void clean_entry(const Rule& rule, int parent, const char* name) {
    const std::size_t length = path_.size();
    path_.append("/").append(name);
    clean_examined(rule, parent, name);
    path_.resize(length);
  }

  // Looked at and entered through its parent, and never by a symbolic link: one that has taken a
  // directory's place since could lead out of the tree. A path that is too long is never cut: it
  // could then name its own directory or another file.
  void clean_examined(const Rule& rule, int parent, const char* name) {
    struct stat info {};
    if (path_.size() >= PATH_MAX || fstatat(parent, name, &info, AT_SYMLINK_NOFOLLOW) != 0) return;
    if (S_ISREG(info.st_mode)) {
      if (rule.takes(path_.c_str(), info) && still_leads_to(info)) zel_unlink(path_.c_str());
    } else if (S_ISDIR(info.st_mode) && descend_) {
      clean_directory(rule.below(name), parent, name, O_NOFOLLOW);
      if (still_leads_to(info)) zel_rmdir(path_.c_str());
    }
  }

  // Deletion goes by the whole path, on which a directory may have been swapped meanwhile.
  bool still_leads_to(const struct stat& examined) const {
    struct stat info {};
    return lstat(path_.c_str(), &info) == 0 && info.st_dev == examined.st_dev &&
           info.st_ino == examined.st_ino;
  }

  std::string path_;  // of what is looked at
  const bool descend_;
};

}  // namespace

void SDCleanLogs(const char* path, int maxdays, int descend, int emptydays,
                 int (*getdays)(const char* name)) {
  Walk<AgeRule>(path, descend > 0).clean({maxdays, emptydays, getdays});
}

void SDCleanKeyLogs(const char* path, const char* key, int maxdays, int descend) {
  if (maxdays <= 0) return;
  Walk<KeyRule>(path, descend > 0).clean({maxdays, descend, key});
}
