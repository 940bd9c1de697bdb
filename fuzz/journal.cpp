// Journals of arbitrary bytes: what is executed is what may be, the database stays sound, and no
// other file is touched.
#include <sqlite3.h>

#include <filesystem>
#include <vector>

#include "fuzz/property.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace {

constexpr int kLongestValue = 1 << 16;
constexpr int kMostSteps = 20;  // of a thousand instructions

// Writes down what is executed. Statements without an end are interrupted.
class Journal : public sqlitedb::SQLiteApplyJournal {
 public:
  using SQLiteApplyJournal::SQLiteApplyJournal;

  void limit() {
    sqlite3_limit(db, SQLITE_LIMIT_LENGTH, kLongestValue);
    sqlite3_progress_handler(
        db, 1000, [](void* steps) { return int{++*static_cast<int*>(steps) > kMostSteps}; },
        &steps_);
  }
  cr_status_t exec(const std::string& sql, void* arg) override {
    executed.push_back(sql);
    steps_ = 0;
    statuses.push_back(CR_STATUS_CORRUPT);  // what is thrown
    return statuses.back() = SQLiteApplyJournal::exec(sql, arg);
  }

  std::vector<std::string> executed;
  std::vector<cr_status_t> statuses;

 private:
  int steps_ = 0;
};

// The journal's own reading: lines up to the last semicolon that are neither short nor removals.
std::vector<std::string> lines_of(const std::string& content) {
  std::vector<std::string> lines;
  std::string line;
  for (const char c : content.substr(0, content.rfind(';') + 1) + '\n') {
    if (c != '\n') {
      line += c;
      continue;
    }
    const bool removes = sqlite3_strnicmp(line.c_str(), "DELETE", 6) == 0 ||
                         sqlite3_strnicmp(line.c_str(), "DROP", 4) == 0;
    if (line.size() >= 6 && !removes) lines.push_back(line);
    line.clear();
  }
  return lines;
}

cr_status_t apply(Journal& journal, std::string& content, bool whole_first) {
  try {
    return journal.exec_file_content("journal", content, whole_first);
  } catch (const sqlitedb::db_exception& caught) {
    require(caught.cr_status() == CR_STATUS_CORRUPT, "only corruption is thrown");
    return caught.cr_status();
  }
}

void check_lines(const Journal& journal, const std::string& content, std::size_t first,
                 cr_status_t status) {
  if (content.find(';') == std::string::npos) {
    require(journal.executed.size() == first && status == CR_STATUS_BAD_ARG,
            "no line, no statement");
    return;
  }
  const std::vector<std::string> lines = lines_of(content);
  cr_status_t expected = CR_STATUS_OK;
  std::size_t at = first;
  for (std::size_t i = 0; i < lines.size() && expected % CR_STATUS_BAD_ARG == 0; ++i, ++at) {
    require(at < journal.executed.size() && journal.executed[at] == lines[i], "each line in turn");
    if (journal.statuses[at] != CR_STATUS_OK) expected = journal.statuses[at];
  }
  require(at == journal.executed.size(), "and nothing else");
  require(status == expected, "the status is that of the worst line");
}

void check_replay(const Journal& journal, const std::string& content, bool whole_first,
                  cr_status_t status) {
  if (!whole_first) return check_lines(journal, content, 0, status);
  require(!journal.executed.empty() && journal.executed[0] == content, "the batch is the journal");
  if (journal.statuses[0] == CR_STATUS_BAD_ARG) return check_lines(journal, content, 1, status);
  require(journal.executed.size() == 1 && status == journal.statuses[0],
          "the batch says how it ended");
}

std::string file_of(const char* name) { return scratch() + "/" + name; }

// A copy is quicker than a creation.
void start_afresh() {
  const std::string fresh = file_of("fresh");
  if (!std::filesystem::exists(fresh)) {
    Journal setup(fresh);
    require(setup.init_db() == CR_STATUS_OK, "a database is made");
    setup.exec(
        "CREATE TABLE po (basename TEXT PRIMARY KEY, poid TEXT, content TEXT, crc INT);"
        "INSERT INTO po VALUES ('a', 'p', 'c', 1), ('b', 'q', 'd', 2)",
        nullptr);
  }
  std::filesystem::copy_file(fresh, file_of("db"),
                             std::filesystem::copy_options::overwrite_existing);
}

void check_files() {
  for (const auto& entry : std::filesystem::directory_iterator(scratch())) {
    const std::string name = entry.path().filename();
    require(name == "db" || name == "fresh", "no other file is made or left");
  }
}

}  // namespace

// The first byte says whether the batch is tried first.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  start_afresh();
  Input input(data, size);
  const bool whole_first = input.byte() % 2 != 0;
  const std::string content = input.rest();
  {
    Journal journal(file_of("db"));
    require(journal.open_db() == CR_STATUS_OK, "the database opens");
    journal.limit();
    std::string cut = content;
    const cr_status_t status = apply(journal, cut, whole_first);
    check_replay(journal, content, whole_first, status);
  }
  check_files();
  Journal after(file_of("db"));
  std::string problems;
  require(after.open_db() == CR_STATUS_OK, "the database opens again");
  require(after.run_integrity_check(problems), "the database is sound");
  return 0;
}
