#include "tests/damage/subject.h"

#include <filesystem>
#include <map>
#include <numeric>
#include <sstream>

#include "cli/verify_database.h"
#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/support/intact.h"

namespace {

using Truth = std::map<std::string, std::string>;

constexpr std::size_t kFirstKey = 100000;
constexpr const char* kKeyStart = "a1000";

bool log_told = false;

std::string name_of(std::size_t row) { return "f" + key_of(row); }

class PoSubject : public Subject {
 public:
  PoSubject() : Subject("/po.db", "SELECT basename, poid, content FROM po NOT INDEXED") {
    store(0);
    SQLitePODB db(root_.path(), dir_);
    for (std::size_t row = 0; row < kRows; ++row) {
      FilePO entry(5);
      db.get(name_of(row), &entry);
      truth_[name_of(row)] = text_of(entry.record());
      poids_.insert(key_of(row));
    }
  }

  Answers ask(const std::set<std::size_t>& rows) override {
    answers_ = {};
    log_told = false;
    SQLitePODB db(root_.path(), dir_);
    for (const std::size_t row : rows) {
      FilePO entry(5);
      if (note(db.get(name_of(row), &entry))) compare(entry, name_of(row));
      answers_.differs |= !db.exists(name_of(row));
    }
    for (const char* pattern : {"f*", "*"}) {  // by the index, and without it
      POQueue found;
      note(db.find_by_pattern(pattern, &found, true));
      compare(found);
    }
    double_check(db);
    std::vector<std::string> names;
    note(db.find_by_cursor("", &names, 0));
    answers_.differs |= names.size() != kRows;
    for (const std::string& name : names) answers_.differs |= truth_.count(name) == 0;
    answers_.noticed |= log_told;
    return answers_;
  }

  void store(std::size_t first) const override {
    SQLitePODB db(root_.path(), dir_);
    db.begin_transaction();
    for (std::size_t row = 0; row < kRows; ++row) {
      FilePO entry(file_text(name_of(row), key_of(row + first), 4711 + row, "/c/p"));
      db.put(&entry);
    }
    db.commit_transaction();
  }

 private:
  // True for 0.
  bool note(cr_status_t status) {
    (status == CR_STATUS_NOT_FOUND ? answers_.differs : answers_.noticed) |= status != CR_STATUS_OK;
    return status == CR_STATUS_OK;
  }

  void compare(const PO& entry, const std::string& name) {
    const auto found = truth_.find(name);
    if (found == truth_.end() || text_of(entry.record()) != found->second) answers_.wrong = name;
  }
  void compare(const POQueue& entries) {
    for (const auto& entry : entries) compare(*entry, POGetBasename(entry->record()));
    answers_.differs |= entries.size() != kRows;
  }

  void double_check(SQLitePODB& db) {
    const std::set<std::string> foreign = {make_poid(1)};
    std::set<std::string> poids = poids_;
    poids.insert(*foreign.begin());
    std::set<std::string> unused = poids;
    POQueue found;
    unsigned long count = 0;
    note(db.double_check(&poids, &found, &unused, &count));
    compare(found);
    answers_.differs |= poids != foreign || unused != foreign || count != kRows;
  }

  Truth truth_;
  std::set<std::string> poids_;
  Answers answers_;
};

Truth walked;

cr_status_t take(const char* poid, UDCIDRecord* list) {
  std::string text(32 * list->ndcid + 25, '\0');
  list->toString(text.data(), static_cast<unsigned int>(text.size()));
  walked[poid] = text;
  return CR_STATUS_OK;
}

class UlSubject : public Subject {
 public:
  UlSubject() : Subject("/ul.db", "SELECT poid, udcids FROM utable NOT INDEXED") {
    std::filesystem::create_directories(dir_);
    store(0);
    walked.clear();
    SQLiteULDB(dir_, 0).get_all(take);
    truth_ = walked;
  }

  // The walk comes first: reading a row may remove it, or the whole file.
  Answers ask(const std::set<std::size_t>& rows) override {
    Answers answers;
    log_told = false;
    SQLiteULDB db(dir_, 0);
    unsigned long count = 0;
    walked.clear();
    answers.noticed = db.count(&count) != CR_STATUS_OK || db.get_all(take) != CR_STATUS_OK;
    answers.differs = count != kRows || walked.size() != kRows;
    for (const std::size_t row : rows) {
      const cr_status_t status = db.get_one(key_of(row).c_str(), take);
      answers.differs |= status != CR_STATUS_OK;
      if (*__cr_errno_location() == CR_STATUS_CORRUPT) break;  // the file may be gone
    }
    for (const auto& [poid, list] : walked) {
      const auto found = truth_.find(poid);
      if (found == truth_.end() || found->second != list) answers.wrong = poid;
    }
    answers.noticed |= log_told;
    return answers;
  }

  // Some lists are longer than a page.
  void store(std::size_t first) const override {
    SQLiteULDB db(dir_, 0);
    db.begin_transaction();
    for (std::size_t row = 0; row < kRows; ++row) {
      std::vector<std::uint64_t> values(row % 40 == 0 ? 600 : 4);
      std::iota(values.begin(), values.end(), 100 + first + row);
      UDCIDRecord list(static_cast<unsigned int>(values.size() / 2),
                       reinterpret_cast<unsigned char*>(values.data()));
      db.put(key_of(row).c_str(), &list, nullptr);
    }
    db.commit_transaction();
  }

 private:
  Truth truth_;
};

}  // namespace

std::string Subject::raw_rows() const {
  std::string all;
  intact::Faults faults;
  sqlite3* db = nullptr;
  sqlite3_open_v2(file().c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  intact::each_row(db, sql_, faults, [&all](sqlite3_stmt* row) {
    for (int i = 0; i < sqlite3_column_count(row); ++i) all += intact::text(row, i) + '\n';
  });
  sqlite3_close(db);
  return faults.empty() ? all : "an error after " + all;
}

bool Subject::verify_reports() const { return verify_finds_faults(root_.path()); }

std::string key_of(std::size_t row) { return make_poid(kFirstKey + row); }

std::set<std::size_t> rows_near(std::size_t offset, const std::string& image) {
  std::set<std::size_t> rows = {offset * 7919 % kRows};  // one elsewhere
  for (const std::size_t at : {image.rfind(kKeyStart, offset), image.find(kKeyStart, offset)}) {
    if (at != std::string::npos) rows.insert(std::stoul(image.substr(at + 1, 6)) - kFirstKey);
  }
  return rows;
}

std::unique_ptr<Subject> make_po_subject() { return std::make_unique<PoSubject>(); }
std::unique_ptr<Subject> make_ul_subject() { return std::make_unique<UlSubject>(); }

bool verify_finds_faults(const std::string& root) {
  std::ostringstream out;
  const cli::Console console{out, out};
  cli::Findings findings(console);
  cli::Look look(false);
  const cli::CatalogPath directory{root, {"5", "c", "p"}};
  verify_entries(cli::open_entries(directory, &look), &findings);
  verify_lists(cli::open_lists(directory, &look), &findings);
  return !look.found_nothing() || findings.exit_status() != cli::kDone;
}

void prepare() {
  work_in_memory();
  refhost::log_to_sink([](const refhost::LogLine&) { log_told = true; });
  refhost::set_log_level(refhost::LogLevel::Error);
}
