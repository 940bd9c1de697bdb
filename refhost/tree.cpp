// Making and deleting directory trees.
//
// No symbolic link is followed, in no component of the path: a directory that somebody replaces by
// a link cannot lead a deletion, or a new directory, out of the tree. Every step is made relative
// to an open directory, so the way walked is the way checked.
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <string_view>
#include <utility>
#include <vector>

#include "host/files.h"
#include "refhost/fail_internal.h"
#include "refhost/fd_internal.h"

namespace refhost {
namespace {

// For walking through; needs no permission to read.
constexpr int kPassFlags = O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;
constexpr int kReadFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

// The components of a path; "." and doubled slashes mean nothing.
std::vector<std::string> components(std::string_view path) {
  std::vector<std::string> names;
  while (!path.empty()) {
    const std::size_t end = path.find('/');
    const std::string_view name = path.substr(0, end);
    if (!name.empty() && name != ".") names.emplace_back(name);
    path.remove_prefix(end == std::string_view::npos ? path.size() : end + 1);
  }
  return names;
}

Fd open_start(const char* path) { return Fd(open(*path == '/' ? "/" : ".", kPassFlags)); }

Fd pass_to(const Fd& directory, const std::string& name) {
  return Fd(openat(directory.get(), name.c_str(), kPassFlags));
}

// A new directory must not vanish in a crash while what was written into it is counted on. A parent
// that may not be read cannot be synced.
bool sync_parent(const Fd& parent) {
  const Fd readable(openat(parent.get(), ".", kReadFlags));
  return !readable || sync_directory(readable.get());
}

// Somebody else may make the same directory at the same time.
Fd make_and_pass_to(const Fd& directory, const std::string& name, mode_t mode) {
  if (mkdirat(directory.get(), name.c_str(), mode) != 0) {
    return errno == EEXIST ? pass_to(directory, name) : Fd();
  }
  return sync_parent(directory) ? pass_to(directory, name) : Fd();
}

// The emptying of one tree. One directory is open at a time, however deep the tree is; the way back
// leads through "..", which must be the directory that we came from.
class TreeEraser {
 public:
  explicit TreeEraser(Fd top) : current_(std::move(top)) {}

  bool run() {
    for (;;) {
      std::string directory;
      if (!erase_files(directory)) return false;
      const bool empty = directory.empty();
      if (empty && way_.empty()) return true;
      if (!(empty ? leave() : enter(std::move(directory)))) return false;
    }
  }

 private:
  struct Step {
    std::string name;  // of the directory entered
    dev_t parent_device;
    ino_t parent_inode;
  };

  // Deletes up to the first directory, whose name it tells; an empty name when none is left.
  bool erase_files(std::string& directory) {
    Fd listed(openat(current_.get(), ".", kReadFlags));
    const std::unique_ptr<DIR, int (*)(DIR*)> stream(listed ? fdopendir(listed.get()) : nullptr,
                                                     closedir);
    if (!stream) return false;
    listed.release();  // the stream closes it
    bool again = false;
    for (;;) {
      errno = 0;
      const dirent* const entry = readdir(stream.get());
      if (entry == nullptr) {
        if (errno != 0 || !again) return errno == 0;
        // Some file systems pass over entries of a directory that is changed while it is read.
        again = false;
        rewinddir(stream.get());
        continue;
      }
      const std::string_view name(entry->d_name);
      if (name == "." || name == "..") continue;
      if (erased(entry->d_name)) {
        again = true;
        continue;
      }
      if (errno == EISDIR) directory = name;
      return errno == EISDIR;
    }
  }

  bool erased(const char* name) const {
    return unlinkat(current_.get(), name, 0) == 0 || errno == ENOENT;
  }

  bool enter(std::string name) {
    struct stat parent {};
    if (fstat(current_.get(), &parent) != 0) return false;
    Fd child = pass_to(current_, name);
    if (!child) return errno == ENOENT;
    way_.push_back({std::move(name), parent.st_dev, parent.st_ino});
    current_ = std::move(child);
    return true;
  }

  bool leave() {
    const Step step = std::move(way_.back());
    way_.pop_back();
    Fd parent = pass_to(current_, "..");
    struct stat found {};
    if (!parent || fstat(parent.get(), &found) != 0) return false;
    if (found.st_dev != step.parent_device || found.st_ino != step.parent_inode) {
      errno = EBUSY;  // moved while we were in it
      return false;
    }
    current_ = std::move(parent);
    return unlinkat(current_.get(), step.name.c_str(), AT_REMOVEDIR) == 0 || errno == ENOENT;
  }

  Fd current_;
  std::vector<Step> way_;
};

// The directory that holds the last of the names, which is taken off the list.
Fd pass_to_parent(const char* path, const std::vector<std::string>& names) {
  Fd directory = open_start(path);
  for (std::size_t i = 0; directory && i + 1 < names.size(); ++i) {
    directory = pass_to(directory, names[i]);
  }
  return directory;
}

bool delete_child_tree(const Fd& parent, const std::string& name) {
  Fd top = pass_to(parent, name);
  return top && TreeEraser(std::move(top)).run() &&
         unlinkat(parent.get(), name.c_str(), AT_REMOVEDIR) == 0;
}

}  // namespace
}  // namespace refhost

cr_status_t wa_createtree(const char* path, unsigned int mode) {
  if (path == nullptr || *path == '\0') return refhost::fail_argument();
  refhost::Fd directory = refhost::open_start(path);
  for (const std::string& name : refhost::components(path)) {
    if (!directory) break;
    refhost::Fd child = refhost::pass_to(directory, name);
    if (!child && errno == ENOENT) child = refhost::make_and_pass_to(directory, name, mode);
    directory = std::move(child);
  }
  return directory ? CR_STATUS_OK : refhost::fail_errno();
}

cr_status_t wa_deletetree(const char* path) {
  if (path == nullptr) return refhost::fail_argument();
  const std::vector<std::string> names = refhost::components(path);
  if (names.empty() || names.back() == "..") return refhost::fail_argument();
  const refhost::Fd parent = refhost::pass_to_parent(path, names);
  if (!parent || !refhost::delete_child_tree(parent, names.back())) return refhost::fail_errno();
  return CR_STATUS_OK;
}
