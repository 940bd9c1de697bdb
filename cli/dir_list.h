// Directories on disk, read in byte order of their names and in bounded memory.
#pragma once

#include <cstddef>
#include <functional>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "host/status.h"

namespace cli {

enum class EntryKind { directory, file, other };  // a symbolic link is `other`

struct DirEntry {
  std::string name;
  EntryKind kind;
};

// Reads the entries whose names follow `after` in byte order, at most `limit` of them, without "."
// and "..". Fewer than `limit` are the last. The directory itself must not be a symbolic link.
cr_status_t read_entries(const std::string& directory, const std::string& after, std::size_t limit,
                         std::vector<DirEntry>* entries);

// All entries of a directory, page by page, so that a directory of any size can be listed.
class DirPager {
 public:
  explicit DirPager(std::string directory) : directory_(std::move(directory)) {}

  // The next entry, null after the last one or when `status` is not 0. It lives until the next
  // call.
  const DirEntry* next();
  cr_status_t status() const { return status_; }

  // Reads before the first `next`. Returns a pager of the same directory, which need not read it
  // again when its names are few.
  DirPager read_ahead();

 private:
  bool fill();

  std::string directory_;
  std::vector<DirEntry> page_;
  std::size_t position_ = 0;
  bool last_page_ = false;
  cr_status_t status_ = CR_STATUS_OK;
};

// Takes away what a crash left of whole-file writes. Under the directory's lock, where nobody else
// writes: what is unfinished then stays so.
void remove_unfinished_writes(const std::string& directory);

// The pager is one of the directory that is visited.
using DirectoryVisit = std::function<void(const CatalogPath&, DirPager)>;

// Visits a directory of the catalog and all directories below it, parents first, in byte order.
// Symbolic links are never followed. `failed` gets the directories that cannot be read, and the
// walk goes on. From the root of a catalog, all data stores are visited and nothing else there.
void walk_directories(const CatalogPath& top, const DirectoryVisit& visit,
                      const std::function<void(const CatalogPath&, cr_status_t)>& failed);

}  // namespace cli
