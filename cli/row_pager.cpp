#include "cli/row_pager.h"

#include <sys/stat.h>

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <string_view>
#include <thread>
#include <utility>

#include "podb/sqlite_podb.h"

namespace cli {
namespace {

constexpr std::size_t kPage = 512;

// Names that are no texts come before and after all others. The last column is 0 where a damaged
// index leads back: the walk would go in circles.
std::string page_statement(const std::string& condition) {
  return "SELECT basename, poid, content, crc, basename > ?1 FROM po WHERE basename > ?1"
         " AND typeof(basename) = 'text'" +
         (condition.empty() ? "" : " AND (" + condition + ")") + " ORDER BY basename LIMIT " +
         std::to_string(kPage);
}

// What kNamedRows says, for a name that is a text: much faster than SQL.
bool is_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." &&
         name.find_first_of(std::string_view("\0/", 2)) == std::string::npos;
}

}  // namespace

RowPager::RowPager(const CatalogPath& directory, const std::string& condition)
    : root_(directory.root),
      directory_(directory.full()),
      file_(directory_ + "/" + SQLitePODB::dbfilename()),
      is_whole_(condition.empty()),
      sql_(page_statement(condition)),
      entry_(directory.dsid().value_or(0)) {}

const Row* RowPager::next() {
  if (position_ == page_.size() && !fill()) return nullptr;
  Stored& stored = page_[position_++];
  row_.entry = decode(stored) ? &entry_ : nullptr;
  row_.name = std::move(stored.name);
  return &row_;
}

bool RowPager::fill() {
  delivered_ += page_.size();
  page_.clear();
  position_ = 0;
  while (page_.empty() && !last_page_) {
    status_ = read_next_page();
    last_page_ = last_page_ || status_ != CR_STATUS_OK;
  }
  if (status_ == CR_STATUS_NOT_FOUND) status_ = CR_STATUS_OK;  // no database: no rows
  return !page_.empty();
}

// A database that is just being made, removed or replaced cannot be used for a moment.
cr_status_t RowPager::read_next_page() {
  constexpr int kMostLooks = 25;
  constexpr std::chrono::milliseconds kBetweenLooks(20);
  for (int look = 1;; ++look) {
    cr_status_t status = statement_ ? CR_STATUS_OK : open();
    if (status == CR_STATUS_OK) status = read_page();
    const bool may_change = status == CR_STATUS_BAD_DATA || status == CR_STATUS_FAILED ||
                            (status == CR_STATUS_BUSY && connection_.has_moved());
    if (!may_change || look == kMostLooks) return status;
    statement_.reset();
    std::this_thread::sleep_for(kBetweenLooks);
  }
}

cr_status_t RowPager::open() {
  struct stat found = {};
  if (stat(file_.c_str(), &found) != 0) return status_of_errno("stat");
  if (S_ISDIR(found.st_mode)) return CR_STATUS_FAILED;
  if (!S_ISREG(found.st_mode) || found.st_size == 0) return CR_STATUS_BAD_DATA;
  const int code = connection_.open(file_);
  if (code == SQLITE_OK) return CR_STATUS_OK;
  return is_there(file_) ? status_of_sqlite(code) : CR_STATUS_NOT_FOUND;
}

cr_status_t RowPager::read_page() {
  const ReadTransaction transaction(connection_);
  if (transaction.code() != SQLITE_OK) return status_of_sqlite(transaction.code());
  if (!statement_) statement_ = std::make_unique<Statement>(connection_, sql_);
  statement_->bind(1, last_name_);
  last_in_page_.clear();
  std::size_t rows = 0;
  cr_status_t kept = CR_STATUS_OK;
  int code = statement_->step();
  for (; code == SQLITE_ROW && kept == CR_STATUS_OK; code = statement_->step(), ++rows) {
    kept = keep(*statement_);
  }
  statement_->reset();
  if (code != SQLITE_DONE && code != SQLITE_ROW) {
    page_.clear();
    return status_of_sqlite(code);
  }
  if (rows > 0) last_name_ = last_in_page_;
  last_page_ = rows < kPage;
  return kept == CR_STATUS_OK && last_page_ && is_whole_ ? look_for_nameless_rows() : kept;
}

cr_status_t RowPager::keep(const Statement& row) {
  if (row.integer(4) != 1) return CR_STATUS_CORRUPT;
  std::string name = row.bytes(0);
  last_in_page_ = name;
  if (!is_name(name)) return CR_STATUS_OK;
  Stored stored;
  stored.name = std::move(name);
  stored.whole =
      row.type(1) != SQLITE_NULL && row.type(2) != SQLITE_NULL && row.type(3) != SQLITE_NULL;
  stored.poid = row.bytes(1);
  stored.content = row.bytes(2);
  stored.crc = row.bytes(3);
  page_.push_back(std::move(stored));
  return CR_STATUS_OK;
}

// The library's own checks of a row.
bool RowPager::decode(const Stored& stored) {
  if (!stored.whole) return false;
  const std::uint32_t crc =
      SQLitePODB::calculate_crc(stored.name.c_str(), stored.poid.c_str(), stored.content.c_str());
  if (crc != static_cast<std::uint32_t>(std::strtoull(stored.crc.c_str(), nullptr, 10))) {
    return false;
  }
  return entry_.set(root_, stored.content, directory_ + "/" + stored.name) == 0;
}

// Counting is quick, and tells when every row has a name.
cr_status_t RowPager::look_for_nameless_rows() {
  const auto named = static_cast<std::int64_t>(delivered_ + page_.size());
  Statement counted(connection_, "SELECT COUNT(*) FROM po");
  if (counted.step() == SQLITE_ROW && counted.integer(0) == named) return CR_STATUS_OK;
  Statement nameless(connection_, std::string("SELECT 1 FROM po WHERE NOT ") + kNamedRows);
  const int code = nameless.step();
  nameless_rows_ = code == SQLITE_ROW;
  return nameless_rows_ || code == SQLITE_DONE ? CR_STATUS_OK : status_of_sqlite(code);
}

}  // namespace cli
