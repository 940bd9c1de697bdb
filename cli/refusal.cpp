#include "cli/refusal.h"

#include <sys/stat.h>

#include "cli/catalog.h"
#include "cli/dir_list.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

Refusal row_refusal(const std::string& root, const std::string& directory) {
  struct stat found = {};
  SQLitePODB db(root, directory);
  // The empty leftover of a crash holds no row.
  if (lstat(db.get_dbfile_path().c_str(), &found) != 0 || found.st_size == 0) return {};
  unsigned long rows = 0;
  cr_status_t status = db.check_db_existence(false);
  if (status == CR_STATUS_OK) status = db.count(&rows);
  if (status != CR_STATUS_OK) return {status, "its database cannot be read"};
  if (rows > 0) return {CR_STATUS_NOT_EMPTY, "there are files in it"};
  return {};
}

}  // namespace

Refusal content_refusal(const std::string& root, const std::string& directory) {
  DirPager entries(directory);
  while (const DirEntry* entry = entries.next()) {
    if (entry->kind == EntryKind::directory) {
      return {CR_STATUS_NOT_EMPTY, "there are directories in it"};
    }
    if (entry->kind != EntryKind::file || !is_reserved_name(entry->name)) {
      return {CR_STATUS_NOT_EMPTY, "there is something in it that is not the catalog's"};
    }
  }
  if (entries.status() != CR_STATUS_OK) return {entries.status(), "it cannot be read"};
  return row_refusal(root, directory);
}

}  // namespace cli
