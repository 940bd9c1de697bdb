#include <algorithm>
#include <cstdio>
#include <map>

#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "tests/damage/subject.h"
#include "tests/support/records.h"

namespace {

std::string name_of(std::size_t row) {
  char name[32];
  std::snprintf(name, sizeof name, "file-%06zu", row);
  return name;
}

class PoSubject : public Subject {
 public:
  PoSubject() : Subject("/po.db") {
    store(0);
    SQLitePODB db(root_.path(), dir_);
    for (std::size_t row = 0; row < kRows; ++row) {
      FilePO entry(5);
      db.get(name_of(row), &entry);
      truth_[name_of(row)] = text_of(entry.record());
    }
  }

  Answers ask(const std::vector<std::size_t>& rows, char page_kind) override {
    answers_ = {};
    SQLitePODB db(root_.path(), dir_);
    for (const std::size_t row : rows) {
      FilePO entry(5);
      if (note(db.get(name_of(row), &entry))) compare(entry, name_of(row));
    }
    answers_.absent = answers_.absent || !db.exists(name_of(rows[0]));
    search(db, name_of(rows[0]).substr(0, 10) + "*", 10);
    double_check(db, rows);
    if (page_kind != kTableLeaf) list_names(db);
    if (page_kind != kIndexLeaf) search_all(db);
    answers_.mismatch = log_told_of_checksum();
    return answers_;
  }

  std::string raw_rows() const override {
    return raw_columns(file(), "SELECT basename, poid, content FROM po NOT INDEXED");
  }
  std::vector<std::string> keys(std::size_t row) const override {
    return {name_of(row), make_poid(row)};
  }
  void change_all() override { store(kRows); }

 private:
  void store(std::size_t first_poid) const {
    SQLitePODB db(root_.path(), dir_);
    db.begin_transaction();
    for (std::size_t row = 0; row < kRows; ++row) {
      FilePO entry(file_text(name_of(row), make_poid(first_poid + row), 4711 + row, "/c/p"));
      db.put(&entry);
    }
    db.commit_transaction();
  }

  // True for 0.
  bool note(cr_status_t status) {
    if (status == CR_STATUS_NOT_FOUND) answers_.absent = true;
    if (status > CR_STATUS_NOT_FOUND) answers_.refused = true;
    return status == CR_STATUS_OK;
  }

  void compare(const PO& entry, const std::string& asked) {
    const std::string name = POGetBasename(entry.record());
    const auto found = truth_.find(name);
    const bool is_true = found != truth_.end() && text_of(entry.record()) == found->second;
    if (!is_true || name.compare(0, asked.size(), asked) != 0) answers_.wrong = name;
  }
  void compare(const POQueue& entries, std::size_t expected) {
    for (const auto& entry : entries) compare(*entry, "");
    if (entries.size() < expected) answers_.absent = true;
    if (entries.size() > expected) answers_.unchecked = true;
  }

  void search(SQLitePODB& db, const std::string& pattern, std::size_t expected) {
    POQueue found;
    note(db.find_by_pattern(pattern, &found, true));
    compare(found, expected);
  }
  void search_all(SQLitePODB& db) {
    QueryParams all;
    all.order = ORDER_NONE;
    POQueue found;
    note(db.select(all, nullptr, &found));
    compare(found, kRows);
  }

  void double_check(SQLitePODB& db, const std::vector<std::size_t>& rows) {
    const std::string foreign = make_poid(99999);
    std::set<std::string> poids = {foreign};
    for (const std::size_t row : rows) poids.insert(make_poid(row));
    std::set<std::string> unused = poids;
    POQueue found;
    unsigned long count = 0;
    const bool counted = note(db.double_check(&poids, &found, &unused, &count));
    compare(found, rows.size());
    const std::set<std::string> expected = {foreign};
    if (poids != expected || unused != expected) answers_.absent = true;
    if (counted && count != kRows) answers_.unchecked = true;
  }

  void list_names(SQLitePODB& db) {
    std::vector<std::string> names;
    if (!note(db.find_by_cursor("", &names, 0))) return;
    if (names.size() != kRows) answers_.absent = true;
    for (const std::string& name : names) answers_.unchecked |= truth_.count(name) == 0;
  }

  std::map<std::string, std::string> truth_;
  Answers answers_;
};

}  // namespace

std::unique_ptr<Subject> make_po_subject() { return std::make_unique<PoSubject>(); }
