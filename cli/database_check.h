// What is checked of every database, whatever it holds.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <vector>

#include "cli/findings.h"
#include "cli/sqlite_reader.h"

namespace cli {

// SQLite's name of each table and index ("table po"), and the statement that made it; none for the
// indexes that it makes itself.
using Schema = std::map<std::string, std::string>;

// "one; two".
std::string joined(const std::vector<std::string>& faults);

// Checks one database file and tells what it finds. No lock is held while it tells.
class DatabaseCheck {
 public:
  // Both outlive the check.
  DatabaseCheck(const std::string& file, Findings* findings) : file_(file), findings_(findings) {}

  // Opens the file and checks its integrity and schema. False when `table`, whose rows matter,
  // cannot be read.
  bool open(const Schema& schema, const std::string& table);

  // Runs the statement; `take` sees each row. False, and told, when it fails.
  bool query(const std::string& sql, const std::function<void(const Statement&)>& take);

  // Walks a table's rows by rowid, which comes before `columns`. `name` and `faults` say how a row
  // is called and what is wrong with it. False, and told, when the table cannot be read to its end.
  bool check_rows(const std::string& table, const std::string& columns,
                  const std::function<std::string(const Statement&)>& name,
                  const std::function<std::vector<std::string>(const Statement&)>& faults);

  void add(const std::string& reason) { findings_->add(file_, reason); }

 private:
  void fail(int code);
  bool check_integrity();
  bool check_schema(Schema missing, const std::string& table);

  const std::string& file_;
  Findings* const findings_;
  Connection connection_;
};

enum class FileState {
  nothing,     // absent or empty: no rows
  to_examine,  // there is something in it
  unusable,    // not a file
};

// Counts the database, and tells of a file that is none.
FileState examine_file(const std::string& file, Findings* findings);

}  // namespace cli
