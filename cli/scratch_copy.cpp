#include "cli/scratch_copy.h"

#include <sqlite3.h>
#include <stdlib.h>

#include <filesystem>
#include <memory>
#include <system_error>

#include "base/hardening_internal.h"
#include "base/honest_vfs_internal.h"
#include "cli/catalog.h"
#include "cli/sqlite_reader.h"

namespace cli {
namespace {

struct CloseDatabase {
  void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
};
using Target = std::unique_ptr<sqlite3, CloseDatabase>;

int copy_pages(sqlite3* from, sqlite3* to) {
  constexpr int kAllPages = -1;
  sqlite3_backup* backup = sqlite3_backup_init(to, "main", from, "main");
  if (backup == nullptr) return sqlite3_errcode(to);
  sqlite3_backup_step(backup, kAllPages);
  return sqlite3_backup_finish(backup);
}

}  // namespace

ScratchCopy::~ScratchCopy() {
  std::error_code ignored;
  if (!directory_.empty()) std::filesystem::remove_all(directory_, ignored);
}

cr_status_t ScratchCopy::make(const std::string& database) {
  std::error_code failure;
  const auto parent = std::filesystem::temp_directory_path(failure);
  std::string made = (parent / "pocatalog-XXXXXX").string();
  if (failure || mkdtemp(made.data()) == nullptr) return status_of_errno("mkdtemp");
  directory_ = made;
  Connection source;
  int code = source.open(database);
  if (code != SQLITE_OK) return status_of_sqlite(code);
  sqlite3* opened = nullptr;
  constexpr int kFlags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE;
  code = sqlite3_open_v2(file().c_str(), &opened, kFlags, base::honest_vfs());
  const Target target(opened);
  if (code == SQLITE_OK) harden(opened);
  if (code == SQLITE_OK) code = copy_pages(source.handle(), target.get());
  return code == SQLITE_OK ? CR_STATUS_OK : status_of_sqlite(code);
}

}  // namespace cli
