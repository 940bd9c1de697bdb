#include "cli/database_check.h"

#include <sys/stat.h>

#include <cstdint>
#include <sstream>

namespace cli {
namespace {

// Codes that say something about us or the moment, not about the file.
bool is_about_access(int code) {
  switch (code & 0xff) {
    case SQLITE_BUSY:
    case SQLITE_LOCKED:
    case SQLITE_NOMEM:
    case SQLITE_CANTOPEN:
    case SQLITE_FULL:
    case SQLITE_PERM:
    case SQLITE_READONLY:
    case SQLITE_AUTH:
      return true;
    default:
      return false;
  }
}

struct DamagedRow {
  std::int64_t rowid;
  std::string name;
  std::string reason;
};

}  // namespace

std::string joined(const std::vector<std::string>& faults) {
  std::string text;
  for (const std::string& fault : faults) text += (text.empty() ? "" : "; ") + fault;
  return text;
}

bool DatabaseCheck::open() {
  const int code = connection_.open(file_);
  if (code != SQLITE_OK) fail(code);
  return code == SQLITE_OK && check_integrity();
}

void DatabaseCheck::fail(int code) {
  const std::string message = connection_.message();
  if (!is_about_access(code)) return add("cannot be read: " + message);
  look_->add_unexamined(file_, status_of_sqlite(code), "cannot be examined: " + message);
}

bool DatabaseCheck::query(const std::string& sql,
                          const std::function<void(const Statement&)>& take) {
  Statement statement(connection_, sql);
  int code = statement.step();
  for (; code == SQLITE_ROW; code = statement.step()) take(statement);
  if (code == SQLITE_DONE) return true;
  fail(code);
  return false;
}

// SQLite puts several problems into one row, under a heading.
bool DatabaseCheck::check_integrity() {
  std::string problems;
  const bool ran = query("PRAGMA integrity_check(100)",
                         [&problems](const Statement& row) { problems += row.bytes(0) + '\n'; });
  std::istringstream lines(problems);
  for (std::string line; std::getline(lines, line);) {
    if (line != "ok" && line.compare(0, 3, "***") != 0) add(line);
  }
  return ran;
}

bool DatabaseCheck::check_schema(Schema missing, const std::string& table) {
  std::vector<std::string> faults;
  bool has_rows = false;
  const bool ran = query("SELECT type || ' ' || name, sql, tbl_name FROM sqlite_master",
                         [&](const Statement& row) {
                           const std::string object = row.bytes(0);
                           const auto expected = missing.find(object);
                           has_rows = has_rows || object == "table " + table;
                           if (expected == missing.end()) {
                             faults.push_back(object + " does not belong here");
                           } else {
                             const SchemaObject& wanted = expected->second;
                             if (row.bytes(1) != wanted.sql || row.bytes(2) != wanted.table) {
                               faults.push_back(object + " is defined differently");
                             }
                             missing.erase(expected);
                           }
                         });
  if (!ran) return false;
  for (const auto& [object, wanted] : missing) faults.push_back(object + " is missing");
  for (const std::string& fault : faults) add(fault);
  return has_rows;
}

bool DatabaseCheck::check_rows(
    const std::string& table, const std::string& columns,
    const std::function<std::string(const Statement&)>& name,
    const std::function<std::vector<std::string>(const Statement&)>& faults, Findings* findings) {
  std::vector<DamagedRow> damaged;
  const auto check = [&](const Statement& row) {
    findings->count_row();
    const std::vector<std::string> found = faults(row);
    if (!found.empty()) damaged.push_back({row.integer(0), name(row), joined(found)});
  };
  const auto tell = [&] {
    for (const DamagedRow& row : damaged) {
      findings->add_row(file_, row.name, row.rowid, row.reason);
    }
    damaged.clear();
    findings->between_pages();
  };
  const int code = walk_table(connection_, table, columns, check, tell);
  if (code != SQLITE_DONE) fail(code);
  return code == SQLITE_DONE;
}

FileState examine_file(const std::string& file, Look* look) {
  struct stat found = {};
  if (lstat(file.c_str(), &found) != 0) return FileState::nothing;
  if (!S_ISREG(found.st_mode)) {
    look->add(file, "is not a regular file");
    return FileState::unusable;
  }
  if (found.st_size != 0) return FileState::to_examine;
  look->add_empty(file);
  return FileState::nothing;
}

}  // namespace cli
