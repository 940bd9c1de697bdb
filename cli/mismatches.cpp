#include "cli/mismatches.h"

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "cli/dir_lock.h"
#include "cli/sqlite_reader.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

constexpr std::size_t kPage = 512;
constexpr const char* kEntries = "po";
constexpr const char* kLists = "utable";

struct Mismatch {
  std::string poid;
  std::string entry;          // the first entry with data of that content; none for a lone list
  std::uint64_t entries = 0;  // how many entries have that content
};

struct Databases {
  OpenTable entries;
  OpenTable lists;

  cr_status_t open(const CatalogPath& directory) {
    int code = entries.open(directory.child(SQLitePODB::dbfilename()).full(), kEntries);
    if (code == SQLITE_OK) {
      code = lists.open(directory.child(SQLiteULDB::dbfilename()).full(), kLists);
    }
    return code == SQLITE_OK ? CR_STATUS_OK : status_of_sqlite(code);
  }
};

// The different POIDs of a table in ascending order, read page by page.
class PoidPager {
 public:
  PoidPager(const Connection* rows, const std::string& table) : last_page_(rows == nullptr) {
    if (last_page_) return;
    statement_.emplace(*rows, "SELECT DISTINCT poid FROM " + table +
                                  " WHERE typeof(poid) = 'text' AND poid > ? ORDER BY poid LIMIT " +
                                  std::to_string(kPage));
  }

  // Null after the last one or when `status` is not 0. It lives until the next call.
  const std::string* next() {
    if (position_ == page_.size() && !fill()) return nullptr;
    return &page_[position_++];
  }
  cr_status_t status() const { return status_; }

 private:
  bool fill() {
    if (last_page_) return false;
    const std::string before = page_.empty() ? std::string() : page_.back();
    statement_->bind(1, before);
    page_.clear();
    position_ = 0;
    int code = statement_->step();
    for (; code == SQLITE_ROW; code = statement_->step()) page_.push_back(statement_->bytes(0));
    statement_->reset();
    // By a damaged index the walk would go in circles.
    if (!page_.empty() && page_.back() <= before) code = SQLITE_CORRUPT;
    if (code != SQLITE_DONE) status_ = status_of_sqlite(code);
    last_page_ = code != SQLITE_DONE || page_.size() < kPage;
    return !page_.empty();
  }

  std::optional<Statement> statement_;
  std::vector<std::string> page_;
  std::size_t position_ = 0;
  bool last_page_;
  cr_status_t status_ = CR_STATUS_OK;
};

// The POIDs that only one of the two databases has.
class Comparison {
 public:
  Comparison(const Connection* entries, const Connection* lists)
      : entries_(entries, kEntries), lists_(lists, kLists) {}

  // At most a page of them; fewer are the last, or `status` is not 0.
  std::vector<std::string> next_page() {
    std::vector<std::string> lone;
    if (!started_) advance(true, true);
    started_ = true;
    while (lone.size() < kPage && status() == CR_STATUS_OK && (entry_ || list_)) {
      const int order = compare();
      if (order != 0) lone.push_back(order < 0 ? *entry_ : *list_);
      advance(order <= 0, order >= 0);
    }
    return lone;
  }

  cr_status_t status() const {
    return entries_.status() != CR_STATUS_OK ? entries_.status() : lists_.status();
  }

 private:
  void advance(bool entry, bool list) {
    if (entry) entry_ = entries_.next();
    if (list) list_ = lists_.next();
  }

  int compare() const {
    if (list_ == nullptr) return -1;
    return entry_ == nullptr ? 1 : entry_->compare(*list_);
  }

  PoidPager entries_;
  PoidPager lists_;
  const std::string* entry_ = nullptr;
  const std::string* list_ = nullptr;
  bool started_ = false;
};

bool has_data(const std::string& record) {
  try {
    return FilePO(record).udcid_qualified();
  } catch (const Cr_ErrnoException&) {
    return false;  // damaged: that is another finding
  }
}

// Looks one POID up in both databases.
class Lookup {
 public:
  explicit Lookup(const Databases& databases) : databases_(databases) {}

  // None when nothing is wrong with that content (any more).
  std::optional<Mismatch> judge(const std::string& poid) {
    const std::uint64_t lists = count(databases_.lists.rows(), kLists, poid);
    Mismatch mismatch{poid, "", count(databases_.entries.rows(), kEntries, poid)};
    if (mismatch.entries == 0 && lists != 0) return mismatch;
    if (mismatch.entries == 0 || lists != 0) return std::nullopt;
    mismatch.entry = first_with_data(poid);
    return mismatch.entry.empty() ? std::nullopt : std::make_optional(mismatch);
  }

  // Not 0 when a lookup failed; what was judged since says nothing.
  cr_status_t status() const { return status_; }

 private:
  std::uint64_t count(const Connection* rows, const std::string& table, const std::string& poid) {
    if (rows == nullptr) return 0;
    Statement counted(*rows, "SELECT COUNT(*) FROM " + table + " WHERE poid = ?");
    counted.bind(1, poid);
    const int code = counted.step();
    if (code != SQLITE_ROW) status_ = status_of_sqlite(code);
    return code == SQLITE_ROW ? static_cast<std::uint64_t>(counted.integer(0)) : 0;
  }

  std::string first_with_data(const std::string& poid) {
    Statement rows(*databases_.entries.rows(),
                   "SELECT basename, content FROM po WHERE poid = ? ORDER BY rowid");
    rows.bind(1, poid);
    int code = rows.step();
    for (; code == SQLITE_ROW; code = rows.step()) {
      if (has_data(rows.bytes(1))) return rows.bytes(0);
    }
    if (code != SQLITE_DONE) status_ = status_of_sqlite(code);
    return "";
  }

  const Databases& databases_;
  cr_status_t status_ = CR_STATUS_OK;
};

// Looks at candidates again. The databases are opened anew: theirs may have been replaced.
cr_status_t confirm(const CatalogPath& directory, const std::vector<std::string>& poids,
                    std::vector<Mismatch>* mismatches) {
  DirLock lock;
  cr_status_t status = lock.lock(directory.full());
  if (status == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;  // removed meanwhile
  if (status != CR_STATUS_OK) return status;
  Databases databases;
  status = databases.open(directory);
  if (status != CR_STATUS_OK) return status;
  Lookup lookup(databases);
  for (const std::string& poid : poids) {
    const auto mismatch = lookup.judge(poid);
    if (lookup.status() != CR_STATUS_OK) return lookup.status();
    if (mismatch) mismatches->push_back(*mismatch);
  }
  return CR_STATUS_OK;
}

void tell(const CatalogPath& directory, const Mismatch& mismatch, Findings* findings) {
  if (mismatch.entry.empty()) {
    const std::string lists = directory.child(SQLiteULDB::dbfilename()).full();
    return findings->add_lone_list(lists, mismatch.poid);
  }
  findings->add_content_without_list(directory.child(mismatch.entry).full(), mismatch.poid,
                                     mismatch.entries);
}

cr_status_t compare(const CatalogPath& directory, const Connection* entries,
                    const Connection* lists, Findings* findings) {
  Comparison comparison(entries, lists);
  std::vector<std::string> candidates;
  do {
    candidates = comparison.next_page();
    if (candidates.empty()) break;
    std::vector<Mismatch> mismatches;
    const cr_status_t status = confirm(directory, candidates, &mismatches);
    for (const Mismatch& mismatch : mismatches) tell(directory, mismatch, findings);
    if (status != CR_STATUS_OK) return status;
  } while (candidates.size() == kPage);
  return comparison.status();
}

void tell_outcome(const CatalogPath& directory, cr_status_t status, Findings* findings) {
  if (status == CR_STATUS_OK || !is_there(directory.full())) return;
  findings->add_unexamined(directory.full(), status,
                           "its contents and their lists of containers cannot be compared");
}

}  // namespace

void tell_mismatches(const CatalogPath& directory, Findings* findings) {
  Databases databases;
  const cr_status_t opened = databases.open(directory);
  if (opened != CR_STATUS_OK) return tell_outcome(directory, opened, findings);
  tell_mismatches(directory, databases.entries.rows(), databases.lists.rows(), findings);
}

void tell_mismatches(const CatalogPath& directory, const Connection* entries,
                     const Connection* lists, Findings* findings) {
  tell_outcome(directory, compare(directory, entries, lists, findings), findings);
}

}  // namespace cli
