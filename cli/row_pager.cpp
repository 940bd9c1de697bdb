#include "cli/row_pager.h"

#include <sys/stat.h>

#include <chrono>
#include <thread>
#include <unordered_map>
#include <utility>

#include "base/sql_text.h"

namespace cli {
namespace {

constexpr unsigned long kPage = 512;

std::string quoted(const std::string& name) { return "'" + base::sql_escaped(name) + "'"; }

// Shows the statements of its scope one state of the database: a row that goes between two of them
// would look damaged.
class Snapshot {
 public:
  explicit Snapshot(SQLitePODB& db) : db_(db), status_(db.exec_sql("BEGIN", nullptr)) {}
  Snapshot(const Snapshot&) = delete;
  Snapshot& operator=(const Snapshot&) = delete;
  ~Snapshot() {
    if (status_ == CR_STATUS_OK) db_.exec_sql("ROLLBACK", nullptr);  // nothing was written
  }

  cr_status_t status() const { return status_; }

 private:
  SQLitePODB& db_;
  const cr_status_t status_;
};

using Entries = std::unordered_map<std::string, boost::intrusive_ptr<PO>>;

cr_status_t read_range(SQLitePODB* db, const std::string& condition, const std::string& first,
                       const std::string& last, Entries* entries) {
  QueryParams range;
  range.where = condition + " AND basename BETWEEN " + quoted(first) + " AND " + quoted(last);
  POQueue found;
  const cr_status_t status = db->select(range, nullptr, &found);
  for (const auto& entry : found) entries->emplace(POGetBasename(entry->record()), entry);
  return status;
}

}  // namespace

RowPager::RowPager(const CatalogPath& directory, const std::string& condition)
    : db_(directory.root, directory.full()),
      condition_(kNamedRows + (condition.empty() ? "" : " AND (" + condition + ")")) {}

const Row* RowPager::next() {
  if (position_ == page_.size() && !fill()) return nullptr;
  return &page_[position_++];
}

bool RowPager::fill() {
  if (last_page_) return false;
  status_ = look();
  if (status_ == CR_STATUS_OK)
    status_ = read_page();
  else
    page_.clear();
  position_ = 0;
  last_page_ = status_ != CR_STATUS_OK || page_.size() < kPage;
  if (status_ == CR_STATUS_NOT_FOUND) status_ = CR_STATUS_OK;  // no database: no rows
  return !page_.empty();
}

// The library takes a database that it cannot look at for an empty one. One that is just being made
// or removed cannot be used for a moment.
cr_status_t RowPager::look() {
  constexpr int kMostLooks = 25;
  constexpr std::chrono::milliseconds kBetweenLooks(20);
  cr_status_t status = CR_STATUS_OK;
  for (int look = 1; look <= kMostLooks; ++look) {
    struct stat found = {};
    if (lstat(db_.get_dbfile_path().c_str(), &found) != 0) return status_of_errno("lstat");
    status = db_.check_db_existence(false);
    if (status != CR_STATUS_BAD_DATA) return status;
    std::this_thread::sleep_for(kBetweenLooks);
  }
  return status;
}

cr_status_t RowPager::read_page() {
  std::string where = condition_;
  if (!page_.empty()) where += " AND basename > " + quoted(page_.back().name);
  page_.clear();
  const Snapshot snapshot(db_);
  if (snapshot.status() != CR_STATUS_OK) return snapshot.status();
  std::vector<std::string> names;
  const cr_status_t listed = db_.select_basenames(&names, where, ORDER_ASCENDING, kPage);
  if (listed != CR_STATUS_OK || names.empty()) return listed;
  Entries entries;
  const cr_status_t status = read_range(&db_, condition_, names.front(), names.back(), &entries);
  if (status != CR_STATUS_OK) return status;
  for (std::string& name : names) {
    const auto found = entries.find(name);
    page_.push_back({std::move(name), found == entries.end() ? nullptr : found->second});
  }
  return CR_STATUS_OK;
}

bool RowPager::has_nameless_rows() {
  if (db_.check_db_existence(false) != CR_STATUS_OK) return false;
  std::vector<std::string> names;
  // A name that is NULL fails the query: that is one, too.
  return db_.select_basenames(&names, std::string("NOT ") + kNamedRows, ORDER_NONE, 1) !=
             CR_STATUS_OK ||
         !names.empty();
}

}  // namespace cli
