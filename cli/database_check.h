// What is checked of every database, whatever it holds.
#pragma once

#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "cli/findings.h"
#include "cli/sqlite_reader.h"
#include "cli/verify_look.h"

namespace cli {

struct SchemaObject {
  std::string table;  // that it is, or belongs to
  std::string sql;    // the statement that made it; none for the indexes that SQLite makes itself
};

// By SQLite's name of each table and index ("table po").
using Schema = std::map<std::string, SchemaObject>;

// "one; two".
std::string joined(const std::vector<std::string>& faults);

// Checks one database file and keeps the connection.
class DatabaseCheck {
 public:
  // The look, to which goes what is found, outlives the check.
  DatabaseCheck(std::string file, Look* look) : file_(std::move(file)), look_(look) {}

  // Opens the file and checks its integrity. False when it cannot be read.
  bool open();

  // False when `table`, whose rows matter, cannot be read.
  bool check_schema(Schema missing, const std::string& table);

  // Runs the statement; `take` sees each row. False, with a reason for the look, when it fails.
  bool query(const std::string& sql, const std::function<void(const Statement&)>& take);

  // Walks a table's rows by rowid, which comes before `columns`. `name` and `faults` say how a row
  // is called and what is wrong with it; no lock is held while that is told. False, with a reason
  // for the look, when the table cannot be read to its end.
  bool check_rows(const std::string& table, const std::string& columns,
                  const std::function<std::string(const Statement&)>& name,
                  const std::function<std::vector<std::string>(const Statement&)>& faults,
                  Findings* findings);

  const Connection& connection() const { return connection_; }

  void add(const std::string& reason) { look_->add(file_, reason); }

 private:
  void fail(int code);
  bool check_integrity();

  const std::string file_;
  Look* const look_;
  Connection connection_;
};

enum class FileState {
  nothing,     // absent or empty: no rows
  to_examine,  // there is something in it
  unusable,    // not a file
};

// Tells the look of a file that is no database.
FileState examine_file(const std::string& file, Look* look);

}  // namespace cli
