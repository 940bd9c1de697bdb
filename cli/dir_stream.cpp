#include "cli/dir_stream.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <memory>
#include <string_view>
#include <utility>

namespace cli {
namespace {

struct CloseStream {
  void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseStream>;

// Closes the descriptor in the end.
Stream open_stream(refhost::Fd directory) {
  Stream stream(directory ? fdopendir(directory.get()) : nullptr);
  if (stream) directory.release();
  return stream;
}

mode_t kind_of(int directory, const dirent& entry) {
  if (entry.d_type != DT_UNKNOWN) return static_cast<mode_t>(DTTOIF(entry.d_type));
  struct stat found {};
  const int failed = fstatat(directory, entry.d_name, &found, AT_SYMLINK_NOFOLLOW);
  return failed != 0 ? 0 : found.st_mode & S_IFMT;
}

}  // namespace

bool read_directory_entries(refhost::Fd directory,
                            const std::function<void(std::string name, mode_t kind)>& take) {
  const Stream stream = open_stream(std::move(directory));
  if (!stream) return false;
  for (;;) {
    errno = 0;
    // The stream is this function's own, so no other thread reads it.
    const dirent* entry = readdir(stream.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) return errno == 0;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") take(std::string(name), kind_of(dirfd(stream.get()), *entry));
  }
}

}  // namespace cli
