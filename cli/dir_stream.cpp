#include "cli/dir_stream.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string_view>

#include "refhost/fd_internal.h"

namespace cli {
namespace {

struct CloseStream {
  void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

// Over a descriptor of its own, which the stream closes.
Stream open_stream(int directory) {
  refhost::Fd again(openat(directory, ".", O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  Stream stream(again ? fdopendir(again.get()) : nullptr);
  if (stream) again.release();
  return stream;
}

mode_t kind_of(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return static_cast<mode_t>(DTTOIF(entry.d_type));
  struct stat found {};
  const int failed = fstatat(directory, entry.d_name, &found, AT_SYMLINK_NOFOLLOW);
  return failed != 0 ? 0 : found.st_mode & S_IFMT;
}

}  // namespace

bool read_directory_entries(int directory,
                            const std::function<void(std::string name, mode_t kind)>& take) {
  const Stream stream = open_stream(directory);
  if (!stream) return false;
  for (;;) {
    errno = 0;
    // The stream is this function's own, so no other thread reads it.
    const dirent* entry = readdir(stream.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) return errno == 0;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") take(std::string(name), kind_of(directory, *entry));
  }
}

}  // namespace cli
