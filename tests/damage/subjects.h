// A po.db and a ul.db, to be damaged and then asked: what do their users get to see?
#pragma once

#include <map>
#include <sstream>

#include "cli/verify_database.h"
#include "tests/crash/lane.h"
#include "tests/support/files.h"

constexpr std::size_t kRows = 64;  // tables and indexes of several pages each
constexpr std::size_t kFirstKey = 100000;

struct Answers {
  bool noticed = false;  // an operation failed or logged an error
  bool summed = false;   // because a checksum did not fit
  bool differs = false;  // something was missing, or is not stored
  bool wrong = false;    // an entry or a list was not the true one
};

class Subject {
 public:
  explicit Subject(const char* name) : file_(dir_ + name) {}
  virtual ~Subject() = default;

  // Asks for some rows by key, and for everything. The first time the answers are the true ones.
  Answers ask(const std::set<std::size_t>& rows) {
    answers_ = {};
    refhost::log_to_sink([this](const refhost::LogLine& line) {
      answers_.noticed = true;
      answers_.summed |= line.message.find("mismatch") != std::string::npos;
    });
    ask_for(rows);
    refhost::log_to_sink([](const refhost::LogLine&) {});
    return answers_;
  }

  // Gives all rows contents that follow from a number.
  virtual void fill(std::size_t number) = 0;

  const TempDir root_ = TempDir();
  const std::string dir_ = root_.path("5/c/p");
  const bool made_ = std::filesystem::create_directories(dir_);
  const std::string file_;

 protected:
  // By this a row can also be found in the file.
  static std::string key_of(std::size_t row) { return make_poid(kFirstKey + row); }

  template <typename Database>
  static void fill(Database&& database, const std::string& prefix, std::size_t number) {
    must(database.begin_transaction());
    for (std::size_t row = 0; row < kRows; ++row) {
      store(database, prefix + key_of(row), kFirstKey + row + number);
    }
    must(database.commit_transaction());
  }

  virtual void ask_for(const std::set<std::size_t>& rows) = 0;

  bool note(cr_status_t status) {
    (status == CR_STATUS_NOT_FOUND ? answers_.differs : answers_.noticed) |= status != CR_STATUS_OK;
    return status == CR_STATUS_OK;
  }
  void compare(const std::string& name, const std::string& content) {
    if (truth_.size() < kRows) truth_.emplace(name, content);
    const auto found = truth_.find(name);
    answers_.wrong |= found == truth_.end() || content != found->second;
  }

  std::map<std::string, std::string> truth_;
  Answers answers_;
};

class PoSubject : public Subject {
 public:
  PoSubject() : Subject("/po.db") { PoSubject::fill(0); }

  void fill(std::size_t number) override {
    Subject::fill(SQLitePODB(root_.path(), dir_), "f", number);
  }

 private:
  void ask_for(const std::set<std::size_t>& rows) override {
    SQLitePODB db(root_.path(), dir_);
    for (const char* pattern : {"f*", "*"}) {  // by the index, and without it
      POQueue found;
      note(db.find_by_pattern(pattern, &found, true));
      compare_all(found, kRows);
    }
    const std::set<std::string> foreign = {make_poid(1)};
    std::set<std::string> poids = foreign;
    for (const std::size_t row : rows) {
      FilePO entry(5);
      const std::string name = "f" + key_of(row);
      if (note(db.get(name, &entry))) compare(name, text_of(entry.record()));
      poids.insert(key_of(row));
    }
    std::vector<std::string> names;
    note(db.find_by_cursor("", &names, 0));
    answers_.differs |= names.size() != kRows;
    std::set<std::string> unused = poids;
    POQueue found;
    unsigned long count = 0;
    note(db.double_check(&poids, &found, &unused, &count));
    compare_all(found, rows.size());
    answers_.differs |= poids != foreign || unused != foreign || count != kRows;
  }

  void compare_all(const POQueue& entries, std::size_t expected) {
    for (const auto& entry : entries) {
      compare(POGetBasename(entry->record()), text_of(entry->record()));
    }
    answers_.differs |= entries.size() != expected;
  }
};

class UlSubject : public Subject {
 public:
  UlSubject() : Subject("/ul.db") { UlSubject::fill(0); }

  void fill(std::size_t number) override { Subject::fill(SQLiteULDB(dir_, 0), "", number); }

 private:
  // The walk comes first: reading a row may remove it, or the whole file.
  void ask_for(const std::set<std::size_t>& rows) override {
    static UlSubject* asking;
    static std::size_t walked;
    asking = this, walked = 0;
    const auto take = [](const char* poid, UDCIDRecord* list) {
      std::string text(32 * list->ndcid + 25, '\0');
      list->toString(text.data(), static_cast<unsigned int>(text.size()));
      asking->compare(poid, text);
      return ++walked, CR_STATUS_OK;
    };
    SQLiteULDB db(dir_, 0);
    note(db.get_all(take));
    answers_.differs |= walked != kRows;
    for (const std::size_t row : rows) {
      note(db.get_one(key_of(row).c_str(), take));
      if (*__cr_errno_location() == CR_STATUS_CORRUPT) break;  // the file may be gone
    }
  }
};

// Whether `pocatalog verify` has something to say about the databases of ROOT/5/c/p.
inline bool verify_finds_faults(const std::string& root) {
  std::ostringstream out;
  const cli::Console console{out, out};
  cli::Findings findings(console);
  cli::Look look(false);
  const cli::CatalogPath directory{root, {"5", "c", "p"}};
  verify_entries(cli::open_entries(directory, &look), &findings);
  verify_lists(cli::open_lists(directory, &look), &findings);
  return !look.found_nothing() || findings.exit_status() != cli::kDone;
}
