// Single entries of a catalog.
#pragma once

#include <memory>
#include <string>

#include "cli/catalog.h"
#include "cli/command.h"
#include "po/dir_po.h"
#include "po/file_po.h"

namespace cli {

// Reads the row of a file. CR_STATUS_NOT_FOUND when there is none; a damaged row has the status of
// its damage, -1 for a wrong checksum.
cr_status_t read_file(const CatalogPath& path, std::unique_ptr<FilePO>* entry);

// Reads the record of a directory, the default record when it has none. CR_STATUS_NOT_FOUND when
// there is no such directory.
cr_status_t read_directory(const CatalogPath& path, std::unique_ptr<DirPO>* entry);

// The same for one that was just found in a directory of the catalog.
cr_status_t read_found_directory(const CatalogPath& path, std::unique_ptr<DirPO>* entry);

// The file or directory of that name, whichever there is. Of both the file, unless
// `directory_only`. `entry` is null exactly when the status is not 0.
cr_status_t read_entry(const CatalogPath& path, bool directory_only, std::unique_ptr<PO>* entry);

// What is said of a damaged entry.
inline constexpr const char* kDamagedText = "damaged: see pocatalog verify";

// Whether that status of a read tells of damage to the row or record itself.
bool is_damage(cr_status_t status);

// Says why the entry could not be read; the exit status of that.
int report_unread(const Console& console, const CatalogPath& path, cr_status_t status);

// Says that no place in a catalog has such a path; the exit status of that.
int report_bad_path(const Console& console, const std::string& path);

// Whether the text that names an entry says that a directory is meant: it ends in "/".
bool names_directory(const std::string& path);

// Whether the directory's own record is there. One without never arrived: it is not counted.
bool has_record(const std::string& directory);

}  // namespace cli
