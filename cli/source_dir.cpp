#include "cli/source_dir.h"

#include <dirent.h>
#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string_view>

namespace cli {
namespace {

constexpr int kReadFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

struct CloseDirectory {
  void operator()(DIR* stream) const { closedir(stream); }
};
using Stream = std::unique_ptr<DIR, CloseDirectory>;

// Over a descriptor of its own, which the stream closes.
Stream open_stream(int directory) {
  refhost::Fd again(openat(directory, ".", kReadFlags));
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

bool by_name(const SourceEntry& a, const SourceEntry& b) { return a.name < b.name; }

}  // namespace

std::string path_below(const std::string& directory, const std::string& name) {
  return directory == "/" ? directory + name : directory + "/" + name;
}

bool SourceDirectory::open(const std::string& path, const FileId& id) {
  directory_ = refhost::Fd(::open(path.c_str(), kReadFlags));
  if (!directory_ || fstat(fd(), &attributes_) != 0) return false;
  errno = ESTALE;
  return id_of(attributes_) == id;
}

bool SourceDirectory::read(std::vector<SourceEntry>* entries) const {
  const Stream stream = open_stream(fd());
  if (!stream) return false;
  for (;;) {
    errno = 0;
    // The stream is this function's own, so no other thread reads it.
    const dirent* entry = readdir(stream.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) break;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") {
      entries->push_back({std::string(name), kind_of(fd(), *entry)});
    }
  }
  if (errno != 0) return false;
  std::sort(entries->begin(), entries->end(), by_name);
  return true;
}

}  // namespace cli
