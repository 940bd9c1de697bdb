#include "cli/source_dir.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cli/dir_stream.h"

namespace cli {
namespace {

constexpr int kReadFlags = O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC;

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
  const bool complete = read_directory_entries(refhost::Fd(openat(fd(), ".", kReadFlags)),
                                               [entries](std::string name, mode_t kind) {
                                                 entries->push_back({std::move(name), kind});
                                               });
  if (!complete) return false;
  std::sort(entries->begin(), entries->end(), by_name);
  return true;
}

}  // namespace cli
