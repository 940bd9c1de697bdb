// Reading many directories of a catalog, and the account of what could not be read.
#pragma once

#include <functional>
#include <mutex>
#include <set>
#include <string>

#include "cli/catalog.h"
#include "cli/command.h"
#include "cli/dir_list.h"
#include "host/po_record.h"

namespace cli {

// Goes on after damage: each place is reported, and the exit status tells. Where a console is asked
// for, it is that of the visit.
class CatalogScan {
 public:
  using Visit = std::function<void(const Console&, const CatalogPath&)>;
  using ThreadVisit = std::function<void(const Console&, const CatalogPath&, const DirPager&)>;

  explicit CatalogScan(const Console& console) : console_(console) {}

  // Visits `top`, unless it is the catalog's root, and all directories below it, parents first, in
  // byte order. False, and reported, when there is no such directory.
  bool walk(const CatalogPath& top, const Visit& visit);

  // The same with visits by several threads at once; what they print appears in the same order. The
  // pager is one of the directory that is visited, before its first entry.
  bool walk_by_threads(const CatalogPath& top, const ThreadVisit& visit);

  // Reads a directory's rows in order of their names, those that meet `condition` (raw SQL, may be
  // empty). No lock is held while `take` runs.
  void read_rows(const Console& console, const CatalogPath& directory, const std::string& condition,
                 const std::function<void(const std::string&, const _po_t*)>& take);

  void damaged(const Console& console, const std::string& path, const std::string& text);
  // Something could not be read, which says nothing about it unless the status tells of damage.
  void unread(const Console& console, const std::string& path, cr_status_t status);
  // The same of what was reported already, by its exit status.
  void count(const std::string& path, int exit_status);

  int exit_status() const;

 private:
  bool is_reachable(const CatalogPath& top);
  void unlisted(const Console& console, const CatalogPath& directory, cr_status_t status);

  const Console& console_;
  std::mutex mutex_;  // guards what follows, while the walk goes on
  bool damaged_ = false;
  bool unread_ = false;
  std::set<std::string> reported_;  // its rows and its subdirectories fail alike
};

}  // namespace cli
