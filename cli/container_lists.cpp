#include "cli/container_lists.h"

#include <sqlite3.h>

#include <utility>

#include "cli/batch_errors.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

constexpr int kBegins = 6;  // each waits ten seconds for other writers

void require(cr_status_t status) {
  if (status != CR_STATUS_OK) throw ListsLost{status};
}

}  // namespace

// The library starts anew with an empty file when its own is gone, and its commit cannot tell
// whether the file still bears its name. This can.
class ContainerLists::Database : public SQLiteULDB {
 public:
  explicit Database(const std::string& catalog_directory) : SQLiteULDB(catalog_directory, 0) {}

  void begin() {
    cr_status_t status = CR_STATUS_BUSY;
    for (int attempt = 0; attempt < kBegins && status == CR_STATUS_BUSY; ++attempt) {
      status = begin_transaction();
    }
    require(status);
  }

  void require_in_place() {
    int moved = 1;
    if (db != nullptr) sqlite3_file_control(db, "main", SQLITE_FCNTL_HAS_MOVED, &moved);
    require(moved == 0 ? CR_STATUS_OK : CR_STATUS_NOT_FOUND);
  }
};

ContainerLists::ContainerLists(std::string directory) : directory_(std::move(directory)) {}

// Closing rolls back, and does not make a file that is missing anew, as a rollback would.
ContainerLists::~ContainerLists() = default;

ContainerLists::Database& ContainerLists::begun() {
  if (!db_) {
    auto opened = std::make_unique<Database>(directory_);
    opened->begin();
    db_ = std::move(opened);
  }
  return *db_;
}

void ContainerLists::put(const Content& content) {
  require(begun().put(content.poid.c_str(), container_list(content.segments).get(), nullptr));
}

void ContainerLists::remove(const std::string& poid) { require(begun().del(poid.c_str())); }

void ContainerLists::commit() {
  if (!db_) return;
  db_->require_in_place();
  require(db_->commit_transaction());
  db_->require_in_place();
  db_.reset();
}

}  // namespace cli
