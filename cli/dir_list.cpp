#include "cli/dir_list.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <utility>

#include "cli/cause.h"
#include "cli/dir_stream.h"
#include "host/files.h"
#include "refhost/fd_internal.h"
#include "refhost/leftovers.h"

namespace cli {
namespace {

// Names held per directory. A directory with more is read again for every further page.
constexpr std::size_t kPage = 65536;

// Names that a copy of a pager may hold as well. A walk by threads keeps a thousand copies, so
// these are 20 MB at the worst.
constexpr std::size_t kFew = 64;

EntryKind kind_of(mode_t kind) {
  if (kind == S_IFDIR) return EntryKind::directory;
  return kind == S_IFREG ? EntryKind::file : EntryKind::other;
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

}  // namespace

cr_status_t read_entries(const std::string& directory, const std::string& after, std::size_t limit,
                         std::vector<DirEntry>* entries) {
  entries->clear();
  refhost::Fd opened(open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  const auto take = [&](std::string name, mode_t kind) {
    if (name <= after) return;
    entries->push_back({std::move(name), kind_of(kind)});
    if (entries->size() >= 2 * limit) keep_first(entries, limit);
  };
  if (!read_directory_entries(std::move(opened), take)) return status_of_errno("readdir");
  keep_first(entries, limit);
  std::sort(entries->begin(), entries->end(), by_name);
  return CR_STATUS_OK;
}

const DirEntry* DirPager::next() {
  if (position_ == page_.size() && !fill()) return nullptr;
  return &page_[position_++];
}

DirPager DirPager::read_ahead() {
  fill();
  if (status_ != CR_STATUS_OK) *this = DirPager(directory_);  // fails again when it is asked
  return last_page_ && page_.size() <= kFew ? *this : DirPager(directory_);
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

void walk_directories(const CatalogPath& top, const DirectoryVisit& visit,
                      const std::function<void(const CatalogPath&, cr_status_t)>& failed) {
  std::vector<std::pair<CatalogPath, DirPager>> open_levels;
  const auto enter = [&](const CatalogPath& directory) {
    DirPager names(directory.full());
    DirPager same_names = names.read_ahead();
    take_cause();  // of what was overcome elsewhere
    if (!directory.components.empty()) visit(directory, std::move(same_names));
    open_levels.emplace_back(directory, std::move(names));
  };
  enter(top);
  while (!open_levels.empty()) {
    auto& [path, entries] = open_levels.back();
    const DirEntry* entry = entries.next();
    if (entry == nullptr) {
      if (entries.status() != CR_STATUS_OK) failed(path, entries.status());
      open_levels.pop_back();
    } else if (is_of_catalog(path, *entry)) {
      enter(path.child(entry->name));
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
