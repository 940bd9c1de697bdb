// Where things lie in a catalog: ROOT/<dsid>/<client>/<policy>/<directories>, each directory with
// its own record ("__dirpo__") and databases.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

#include "host/status.h"

namespace cli {

// ROOT as the library wants it: absolute, without symbolic links and without a "/" at the end. What
// does not exist yet is taken as it is written.
std::string absolute_root(const std::string& root);

// A place below the root of a catalog, as its components; none is the root itself.
struct CatalogPath {
  std::string root;  // from absolute_root
  std::vector<std::string> components;

  // "5/client/policy/name", and the same below the root as a full path.
  std::string inner() const;
  std::string full() const;

  // The directory that holds this entry, and the entry's name there. Not for the root itself.
  CatalogPath parent() const;
  const std::string& leaf() const { return components.back(); }

  // The same place's subdirectory or file `name`.
  CatalogPath child(const std::string& name) const;

  // The data store that the path lies in; none for the root and where no data store can be.
  std::optional<unsigned int> dsid() const;
};

// Splits "5/client/policy/name"; "/" at the start or end and doubled ones do not matter. None when
// the first component is no data store's number, or one is "." or "..".
std::optional<CatalogPath> catalog_path(const std::string& root, const std::string& path);

// The number that a data store's directory stands for: decimal, 32 bits, without leading zeros.
std::optional<unsigned int> parse_dsid(const std::string& name);

// Names that the catalog itself uses in its directories: the directory's record, the databases with
// their journals, the counters of a data store. A subdirectory cannot have such a name; files can,
// for they are rows.
bool is_reserved_name(const std::string& name);

// Whether SQLite can open databases in that directory: it keeps paths, its journal's suffix
// included, within 512 bytes.
bool database_path_fits(const std::string& directory);

// 0 when every part of the path is a real directory; CR_STATUS_NOT_FOUND also where one is
// something else, a symbolic link included.
cr_status_t check_directory(const CatalogPath& path);

// What is said of a directory that `check_directory` has not found, or could not reach.
const char* unreached_text(cr_status_t status);

// Whether something has that path; symbolic links are not followed.
bool is_there(const std::string& path);

// The status of the calling thread's `errno`, never 0; its text is the cause (cli/cause.h).
cr_status_t status_of_errno(const char* function);

}  // namespace cli
