#include "cli/content_tally.h"

namespace cli {
namespace {

// Nothing of it is ever rolled back or read again after a crash.
constexpr const char* kSetUp[] = {"PRAGMA temp_store = FILE",
                                  "PRAGMA cache_size = -4096",  // KiB; sorts stay within it, too
                                  "PRAGMA journal_mode = OFF",
                                  "PRAGMA synchronous = OFF",
                                  "CREATE TABLE file (poid TEXT, size INT)",
                                  "CREATE TABLE container (id INT)",
                                  "BEGIN"};

constexpr const char* kContents = "SELECT COUNT(*), MAX(size) FROM file GROUP BY poid";
constexpr const char* kContainers = "SELECT COUNT(*) FROM (SELECT id FROM container GROUP BY id)";

constexpr const char* kOnDisk = "";  // SQLite's name for a temporary file

}  // namespace

ContentTally::ContentTally() {
  keep(scratch_.open(kOnDisk));
  for (const char* sql : kSetUp) run(sql);
  add_file_ = std::make_unique<Statement>(scratch_, "INSERT INTO file VALUES (?, ?)");
  add_container_ = std::make_unique<Statement>(scratch_, "INSERT INTO container VALUES (?)");
}

void ContentTally::add_file(const std::string& poid, std::uint64_t size) {
  add_file_->bind(1, poid);
  add_file_->bind(2, static_cast<std::int64_t>(size));
  insert(add_file_.get());
}

void ContentTally::add_container(std::uint64_t container) {
  add_container_->bind(1, static_cast<std::int64_t>(container));
  insert(add_container_.get());
}

cr_status_t ContentTally::count(ContentTotals* totals) {
  Statement contents(scratch_, kContents);
  int code = contents.step();
  for (; code == SQLITE_ROW; code = contents.step()) {
    ++totals->contents;
    ++(contents.integer(0) == 1 ? totals->unique : totals->shared);
    totals->bytes += static_cast<std::uint64_t>(contents.integer(1));
  }
  keep(code);
  Statement containers(scratch_, kContainers);
  keep(containers.step());
  if (failure_ != SQLITE_OK) return status_of_sqlite(failure_);
  totals->containers = static_cast<std::uint64_t>(containers.integer(0));
  return CR_STATUS_OK;
}

void ContentTally::run(const std::string& sql) { keep(Statement(scratch_, sql).step()); }

void ContentTally::insert(Statement* statement) {
  keep(statement->step());
  statement->reset();
}

void ContentTally::keep(int code) {
  const bool fine = code == SQLITE_OK || code == SQLITE_ROW || code == SQLITE_DONE;
  if (!fine && failure_ == SQLITE_OK) failure_ = code;
}

}  // namespace cli
