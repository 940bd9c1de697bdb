#include "cli/verify_database.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <array>
#include <cstdint>
#include <limits>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "cli/row_faults.h"
#include "cli/sqlite_reader.h"
#include "host/files.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

constexpr std::size_t kPage = 512;
constexpr const char* kVersion = "1";

// What SQLite keeps of the statements that made the database; nothing for the indexes that it made
// itself.
std::map<std::string, std::string> expected_schema() {
  const std::string collation = OSIsCaseSensitive() ? "" : "COLLATE NOCASE";
  return {{"table po", "CREATE TABLE po (    basename TEXT " + collation +
                           " PRIMARY KEY,    poid TEXT,    content TEXT,    crc INT)"},
          {"index sqlite_autoindex_po_1", ""},
          {"index po_poid", "CREATE INDEX po_poid ON po(poid)"},
          {"table registry", "CREATE TABLE registry (    name TEXT PRIMARY KEY,    value TEXT)"},
          {"index sqlite_autoindex_registry_1", ""}};
}

// Codes that say something about us or the moment, not about the file.
bool is_about_access(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_CANTOPEN:
    case SQLITE_PERM:
    case SQLITE_AUTH:
      return true;
    default:
      return false;
  }
}

std::string joined(const std::vector<std::string>& faults) {
  std::string text;
  for (const std::string& fault : faults) text += (text.empty() ? "" : "; ") + fault;
  return text;
}

struct DamagedRow {
  std::int64_t rowid;
  std::string name;
  std::string reason;
};

class DatabaseCheck {
 public:
  DatabaseCheck(const std::string& file, Findings* findings) : file_(file), findings_(findings) {}

  void run() {
    const int code = connection_.open(file_);
    if (code != SQLITE_OK) return fail(code);
    if (!check_integrity() || !check_schema()) return;
    check_version();
    check_rows();
  }

 private:
  void fail(int code) {
    if (is_about_access(code)) {
      const cr_status_t status = (code & 0xff) == SQLITE_BUSY ? CR_STATUS_BUSY : CR_STATUS_FAILED;
      return findings_->add_unexamined(file_, status,
                                       "cannot be examined: " + connection_.message());
    }
    findings_->add(file_, "cannot be read: " + connection_.message());
  }

  // Runs the statement; `take` sees each row. False, and told, when it fails.
  template <typename Take>
  bool query(const std::string& sql, Take take) {
    Statement statement(connection_, sql);
    int code = statement.step();
    for (; code == SQLITE_ROW; code = statement.step()) take(statement);
    if (code == SQLITE_DONE) return true;
    fail(code);
    return false;
  }

  // SQLite puts several problems into one row, under a heading.
  bool check_integrity() {
    std::string problems;
    const bool ran = query("PRAGMA integrity_check(100)",
                           [&problems](const Statement& row) { problems += row.bytes(0) + '\n'; });
    std::istringstream lines(problems);
    for (std::string line; std::getline(lines, line);) {
      if (line != "ok" && line.compare(0, 3, "***") != 0) findings_->add(file_, line);
    }
    return ran;
  }

  // False when there is no table whose rows could be read.
  bool check_schema() {
    std::map<std::string, std::string> missing = expected_schema();
    bool has_rows = false;
    const bool ran =
        query("SELECT type || ' ' || name, sql FROM sqlite_master", [&](const Statement& row) {
          const std::string object = row.bytes(0);
          const auto expected = missing.find(object);
          has_rows = has_rows || object == "table po";
          if (expected == missing.end()) {
            schema_faults_.push_back(object + " does not belong here");
          } else {
            if (row.bytes(1) != expected->second) {
              schema_faults_.push_back(object + " is defined differently");
            }
            missing.erase(expected);
          }
        });
    if (!ran) return false;
    for (const auto& [object, sql] : missing) schema_faults_.push_back(object + " is missing");
    for (const std::string& fault : schema_faults_) findings_->add(file_, fault);
    return has_rows;
  }

  void check_version() {
    std::vector<std::string> versions;
    const bool ran = query("SELECT value FROM registry WHERE name = 'db_version'",
                           [&versions](const Statement& row) {
                             const bool text = row.type(0) == SQLITE_TEXT;
                             versions.push_back(text ? row.bytes(0) : "not a text");
                           });
    if (!ran) return;
    if (versions.empty()) {
      findings_->add(file_, "db_version is missing: a crash came before it; an ingest mends that");
    } else if (versions.front() != kVersion) {
      findings_->add(file_, "db_version is " + versions.front() + ", not " + kVersion);
    }
  }

  void check_rows() {
    Statement rows(connection_,
                   "SELECT rowid, basename, poid, content, crc FROM po WHERE rowid >= ?"
                   " ORDER BY rowid LIMIT " +
                       std::to_string(kPage));
    std::int64_t first = std::numeric_limits<std::int64_t>::min();
    while (check_page(&rows, &first)) {
    }
  }

  // Checks the page that starts at `*first` and moves it to the next. False after the last page.
  bool check_page(Statement* rows, std::int64_t* first) {
    std::vector<DamagedRow> damaged;
    std::int64_t last = *first;
    std::size_t count = 0;
    rows->rewind(*first);
    int code = rows->step();
    for (; code == SQLITE_ROW; code = rows->step(), ++count) {
      last = rows->integer(0);
      check_row(*rows, &damaged);
    }
    const std::string message = connection_.message();
    if (code != SQLITE_DONE) fail(code);
    rows->rewind(0);  // lets go of the lock before anything is printed
    for (const DamagedRow& row : damaged) {
      findings_->add_row(file_, row.name, row.rowid, row.reason);
    }
    if (code != SQLITE_DONE || count < kPage || last == std::numeric_limits<std::int64_t>::max()) {
      return false;
    }
    *first = last + 1;
    return true;
  }

  void check_row(const Statement& row, std::vector<DamagedRow>* damaged) {
    findings_->count_row();
    const auto column = [&row](int index) {
      const int type = row.type(index);
      return RawColumn{type, row.bytes(index)};
    };
    const RawRow raw{row.integer(0), column(1), column(2), column(3), row.type(4), row.integer(4)};
    const std::vector<std::string> faults = row_faults(raw);
    if (!faults.empty()) damaged->push_back({raw.rowid, raw.basename.bytes, joined(faults)});
  }

  const std::string& file_;
  Findings* const findings_;
  Connection connection_;
  std::vector<std::string> schema_faults_;
};

}  // namespace

void verify_database(const CatalogPath& directory, Findings* findings) {
  const std::string file = directory.child(SQLitePODB::dbfilename()).full();
  struct stat found = {};
  if (lstat(file.c_str(), &found) != 0) return;
  findings->count_database();
  if (!S_ISREG(found.st_mode)) {
    findings->add(file, "is not a regular file");
  } else if (found.st_size == 0) {
    findings->add(file, "is empty: a crash left it; an ingest removes it");
  } else {
    DatabaseCheck(file, findings).run();
  }
}

}  // namespace cli
