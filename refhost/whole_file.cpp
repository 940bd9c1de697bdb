// Reading and writing of whole files.
#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <string_view>

#include "host/files.h"
#include "refhost/fail_internal.h"
#include "refhost/fd_internal.h"
#include "refhost/leftovers.h"

namespace refhost {
namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kFirstBlock = 1024;  // more than nearly every record needs

bool is_regular(int file) {
  struct stat info {};
  if (fstat(file, &info) != 0) return false;
  errno = S_ISDIR(info.st_mode) ? EISDIR : EINVAL;
  return S_ISREG(info.st_mode);
}

// By blocks that double, because what is read into has to be filled first.
bool read_all(int file, std::string& content) {
  for (;;) {
    const std::size_t length = content.size();
    const std::size_t block = std::max(length, kFirstBlock);
    content.resize(length + block);
    const ssize_t count = read(file, &content[length], block);
    content.resize(length + static_cast<std::size_t>(count > 0 ? count : 0));
    if (count == 0) return true;
    if (count < 0 && errno != EINTR) return false;
  }
}

bool write_all(int file, std::string_view content) {
  while (!content.empty()) {
    const ssize_t count = write(file, content.data(), content.size());
    if (count < 0 && errno != EINTR) return false;
    if (count > 0) content.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

bool append_to_file(const char* path, const std::string& content) {
  const Fd file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kFileMode));
  return file && write_all(file.get(), content) && fsync(file.get()) == 0;
}

std::string directory_of(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

constexpr std::string_view kUnfinishedPrefix = ".write-";
constexpr std::string_view kUnfinishedSuffix = ".tmp";

// Not made from the target's name, which may be as long as a name can be.
std::string fresh_name() {
  static std::atomic<unsigned int> counter{0};
  return std::string(kUnfinishedPrefix) + std::to_string(getpid()) + "-" +
         std::to_string(counter++) + std::string(kUnfinishedSuffix);
}

// A new file beside the one that it is to replace: it takes that one's place with all its content,
// or goes away again.
class Replacement {
 public:
  explicit Replacement(const std::string& path)
      : leaf_(getbasename(path)),
        directory_(open(directory_of(path).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {}
  Replacement(const Replacement&) = delete;
  Replacement& operator=(const Replacement&) = delete;
  ~Replacement() {
    if (!file_) return;
    const ErrnoKeeper keeper;
    unlinkat(directory_.get(), name_.c_str(), 0);
  }

  bool write(const std::string& content) {
    return directory_ && create() && write_all(file_.get(), content) && keep_mode() &&
           fsync(file_.get()) == 0;
  }

  bool take_place() {
    if (renameat(directory_.get(), name_.c_str(), directory_.get(), leaf_.c_str()) != 0) {
      return false;
    }
    file_ = Fd();
    return sync_directory(directory_.get());
  }

 private:
  // A name may be taken by what an earlier process with our id left behind.
  bool create() {
    do {
      name_ = fresh_name();
      file_ = Fd(openat(directory_.get(), name_.c_str(),
                        O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, kFileMode));
    } while (!file_ && errno == EEXIST);
    return static_cast<bool>(file_);
  }

  bool keep_mode() {
    struct stat old {};
    const bool replaces =
        fstatat(directory_.get(), leaf_.c_str(), &old, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISREG(old.st_mode);
    return !replaces || fchmod(file_.get(), old.st_mode & kPermissionBits) == 0;
  }

  std::string leaf_;
  Fd directory_;
  std::string name_;
  Fd file_;
};

bool replace_file(const char* path, const std::string& content) {
  Replacement replacement(path);
  return replacement.write(content) && replacement.take_place();
}

}  // namespace

bool is_unfinished_write(const std::string& name) {
  const std::size_t affixes = kUnfinishedPrefix.size() + kUnfinishedSuffix.size();
  return name.size() > affixes &&
         name.compare(0, kUnfinishedPrefix.size(), kUnfinishedPrefix) == 0 &&
         name.compare(name.size() - kUnfinishedSuffix.size(), std::string::npos,
                      kUnfinishedSuffix) == 0;
}

bool sync_directory(int directory) { return fsync(directory) == 0 || errno == EINVAL; }

}  // namespace refhost

cr_status_t wa_readfile(const char* path, std::string* content) {
  if (path == nullptr || content == nullptr) return refhost::fail_argument();
  // A pipe would keep its reader waiting.
  const refhost::Fd file(open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC));
  std::string text;
  if (!file || !refhost::is_regular(file.get()) || !refhost::read_all(file.get(), text)) {
    return refhost::fail_errno();
  }
  content->swap(text);
  return CR_STATUS_OK;
}

cr_status_t wa_writefile(const char* path, const std::string& content, bool append) {
  if (path == nullptr) return refhost::fail_argument();
  const bool written =
      append ? refhost::append_to_file(path, content) : refhost::replace_file(path, content);
  return written ? CR_STATUS_OK : refhost::fail_errno();
}
