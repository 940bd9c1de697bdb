// Reading many directories of a catalog, and the account of what could not be read.
#pragma once

#include <functional>
#include <string>

#include "cli/catalog.h"
#include "cli/command.h"
#include "refhost/record.h"

namespace cli {

// Goes on after damage: each place is reported, and the exit status tells.
class CatalogScan {
 public:
  explicit CatalogScan(const Console& console) : console_(console) {}

  // Visits `top`, unless it is the catalog's root, and all directories below it, parents first, in
  // byte order. False, and reported, when there is no such directory.
  bool walk(const CatalogPath& top, const std::function<void(const CatalogPath&)>& visit);

  // Reads a directory's rows in order of their names, those that meet `condition` (raw SQL, may be
  // empty). No lock is held while `take` runs.
  void read_rows(const CatalogPath& directory, const std::string& condition,
                 const std::function<void(const std::string&, const refhost::RecordFields&)>& take);

  void damaged(const std::string& path, const std::string& text);
  // Something could not be read, which says nothing about it unless the status tells of damage.
  void unread(const std::string& path, cr_status_t status);

  int exit_status() const;

 private:
  const Console& console_;
  bool damaged_ = false;
  bool unread_ = false;
  std::string last_unread_;
};

}  // namespace cli
