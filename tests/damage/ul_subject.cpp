#include <filesystem>
#include <map>

#include "tests/damage/subject.h"
#include "tests/support/records.h"
#include "uldb/sqlite_uldb.h"

namespace {

std::string text_of(UDCIDRecord& list) {
  std::string text(32 * list.ndcid + 25, '\0');
  return list.toString(text.data(), static_cast<unsigned int>(text.size())) == 0 ? text : "";
}

std::map<std::string, std::string> walked;
cr_status_t take(const char* poid, UDCIDRecord* list) {
  walked[poid] = text_of(*list);
  return 0;
}

class UlSubject : public Subject {
 public:
  UlSubject() : Subject("/ul.db") {
    std::filesystem::create_directories(dir_);
    store(0);
    walked.clear();
    SQLiteULDB(dir_, 0).get_all(take);
    truth_ = walked;
  }

  // The walk comes first: reading a row may remove it, or the whole file.
  Answers ask(const std::vector<std::size_t>& rows, char) override {
    Answers answers;
    SQLiteULDB db(dir_, 0);
    unsigned long count = 0;
    walked.clear();
    const bool counted = db.count(&count) == CR_STATUS_OK;
    const cr_status_t status = db.get_all(take);
    answers.refused = !counted || (status != CR_STATUS_OK && status != CR_STATUS_BAD_DATA);
    answers.unchecked = counted && count != kRows;
    answers.absent = walked.size() < kRows;
    for (const auto& [poid, list] : walked) compare(poid, list, answers);
    for (const std::size_t row : rows) {
      const std::unique_ptr<UDCIDRecord> list(db.get(make_poid(row).c_str()));
      const cr_status_t failure = *__cr_errno_location();
      if (list != nullptr) {
        compare(make_poid(row), text_of(*list), answers);
      } else if (failure == CR_STATUS_NOT_FOUND) {
        answers.absent = true;
      } else if (failure != CR_STATUS_BAD_DATA) {
        answers.refused = true;
        break;  // the file may be gone, and is made anew by the next
      }
    }
    answers.mismatch = log_told_of_checksum();
    return answers;
  }

  std::string raw_rows() const override {
    return raw_columns(file(), "SELECT poid, udcids FROM utable NOT INDEXED");
  }
  std::vector<std::string> keys(std::size_t row) const override { return {make_poid(row)}; }
  void change_all() override { store(1000); }

 private:
  void store(std::uint64_t first_container) const {
    SQLiteULDB db(dir_, 0);
    db.begin_transaction();
    for (std::size_t row = 0; row < kRows; ++row) {
      std::uint64_t values[] = {100 + row, first_container + 700 + row, 4096 + row, 1};
      UDCIDRecord list(2, reinterpret_cast<unsigned char*>(values));
      db.put(make_poid(row).c_str(), &list, nullptr);
    }
    db.commit_transaction();
  }

  void compare(const std::string& poid, const std::string& list, Answers& answers) const {
    const auto found = truth_.find(poid);
    if (found == truth_.end() || found->second != list) answers.wrong = poid;
  }

  std::map<std::string, std::string> truth_;
};

}  // namespace

std::unique_ptr<Subject> make_ul_subject() { return std::make_unique<UlSubject>(); }
