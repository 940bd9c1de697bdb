#include "cli/dir_list.h"

#include "host/files.h"
#include "refhost/leftovers.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <utility>

namespace cli {
namespace {

// Names held per directory. A directory with more is read again for every further page.
constexpr std::size_t kPage = 65536;

struct CloseDirectory {
  void operator()(DIR* directory) const { closedir(directory); }
};
using Directory = std::unique_ptr<DIR, CloseDirectory>;

Directory open_directory(const std::string& path) {
  const int fd = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (fd < 0) return nullptr;
  Directory opened(fdopendir(fd));
  if (!opened) close(fd);
  return opened;
}

EntryKind kind_of(DIR* directory, const dirent& entry) {
  if (entry.d_type == DT_DIR) return EntryKind::directory;
  if (entry.d_type == DT_REG) return EntryKind::file;
  if (entry.d_type != DT_UNKNOWN) return EntryKind::other;
  struct stat found = {};
  if (fstatat(dirfd(directory), entry.d_name, &found, AT_SYMLINK_NOFOLLOW) != 0) {
    return EntryKind::other;
  }
  if (S_ISDIR(found.st_mode)) return EntryKind::directory;
  return S_ISREG(found.st_mode) ? EntryKind::file : EntryKind::other;
}

bool by_name(const DirEntry& a, const DirEntry& b) { return a.name < b.name; }

void keep_first(std::vector<DirEntry>* entries, std::size_t limit) {
  if (entries->size() <= limit) return;
  const auto end = entries->begin() + static_cast<std::ptrdiff_t>(limit);
  std::nth_element(entries->begin(), end, entries->end(), by_name);
  entries->erase(end, entries->end());
}

bool is_of_catalog(const CatalogPath& directory, const DirEntry& entry) {
  if (entry.kind != EntryKind::directory) return false;
  return !directory.components.empty() || parse_dsid(entry.name).has_value();
}

bool is_entry_after(const std::string& name, const std::string& after) {
  return name > after && name != "." && name != "..";
}

}  // namespace

cr_status_t read_entries(const std::string& directory, const std::string& after, std::size_t limit,
                         std::vector<DirEntry>* entries) {
  entries->clear();
  const Directory opened = open_directory(directory);
  if (!opened) return status_of_errno("open");
  for (;;) {
    errno = 0;
    // The stream is this function's own, so no other thread reads it.
    const dirent* entry = readdir(opened.get());  // NOLINT(concurrency-mt-unsafe)
    if (entry == nullptr) break;
    if (!is_entry_after(entry->d_name, after)) continue;
    entries->push_back({entry->d_name, kind_of(opened.get(), *entry)});
    if (entries->size() >= 2 * limit) keep_first(entries, limit);
  }
  if (errno != 0) return status_of_errno("readdir");
  keep_first(entries, limit);
  std::sort(entries->begin(), entries->end(), by_name);
  return CR_STATUS_OK;
}

const DirEntry* DirPager::next() {
  if (position_ == page_.size() && !fill()) return nullptr;
  return &page_[position_++];
}

bool DirPager::fill() {
  if (last_page_) return false;
  const std::string after = page_.empty() ? "" : page_.back().name;
  position_ = 0;
  status_ = read_entries(directory_, after, kPage, &page_);
  last_page_ = status_ != CR_STATUS_OK || page_.size() < kPage;
  if (status_ != CR_STATUS_OK) page_.clear();
  return !page_.empty();
}

void walk_directories(const CatalogPath& top, const std::function<void(const CatalogPath&)>& visit,
                      const std::function<void(const CatalogPath&, cr_status_t)>& failed) {
  std::vector<std::pair<CatalogPath, DirPager>> open_levels;
  if (!top.components.empty()) visit(top);
  open_levels.emplace_back(top, DirPager(top.full()));
  while (!open_levels.empty()) {
    auto& [path, entries] = open_levels.back();
    const DirEntry* entry = entries.next();
    if (entry == nullptr) {
      if (entries.status() != CR_STATUS_OK) failed(path, entries.status());
      open_levels.pop_back();
    } else if (is_of_catalog(path, *entry)) {
      const CatalogPath below = path.child(entry->name);
      visit(below);
      open_levels.emplace_back(below, DirPager(below.full()));
    }
  }
}

void remove_unfinished_writes(const std::string& directory) {
  DirPager entries(directory);
  while (const DirEntry* entry = entries.next()) {
    if (!refhost::is_unfinished_write(entry->name)) continue;
    wa_deletefile((directory + "/" + entry->name).c_str());  // what stays is told by verify
  }
}

}  // namespace cli
