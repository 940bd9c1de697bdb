// Replaying journals.
#include <sqlite3.h>

#include <algorithm>
#include <boost/algorithm/string/predicate.hpp>
#include <locale>

#include "host/log.h"
#include "sqlitedb/durable_internal.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sql_file_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

namespace {

// Asked by SQLite for every action of a statement that it prepares.
int authorize(void*, int action, const char* first, const char* second, const char*, const char*) {
  switch (action) {
    case SQLITE_ATTACH:
    case SQLITE_DETACH:
      return SQLITE_DENY;
    case SQLITE_PRAGMA:  // the connection's own comes with its first statement
      return is_durable_setting(first, second) ? SQLITE_OK : SQLITE_DENY;
    case SQLITE_FUNCTION:
      return boost::algorithm::iequals(second, "load_extension", std::locale::classic())
                 ? SQLITE_DENY
                 : SQLITE_OK;
    default:
      return SQLITE_OK;
  }
}

// Keeps a replay within its database, for a scope. The connection, which may be null, outlives it.
class Confined {
 public:
  explicit Confined(sqlite3* connection) : db_(connection) { set(authorize); }
  Confined(const Confined&) = delete;
  Confined& operator=(const Confined&) = delete;
  ~Confined() { set(nullptr); }

 private:
  void set(decltype(&authorize) authorizer) {
    if (db_ != nullptr) sqlite3_set_authorizer(db_, authorizer, nullptr);
  }

  sqlite3* const db_;
};

// Journals restore: what removes is never replayed. A line too short to hold a statement, the END;
// of a transaction included, is not one.
bool is_left_out(const std::string& line) {
  constexpr std::size_t kShortest = 6;
  const auto begins_with = [&](const char* word) {
    return boost::algorithm::istarts_with(line, word, std::locale::classic());
  };
  return line.size() < kShortest || begins_with("DELETE") || begins_with("DROP");
}

}  // namespace

SQLiteApplyJournal::~SQLiteApplyJournal() = default;

cr_status_t SQLiteApplyJournal::exec(const std::string& sql, void* arg) {
  if (db == nullptr) return log_not_opened(dbfile);
  if (TraceOn()) __Trace("Exec sql statement [[[%s]]]", sql.c_str());
  std::string error;
  const int rc = run_statements(sql, arg, error);
  if (rc == SQLITE_OK) return CR_STATUS_OK;
  return on_db_error(rc, shortened_for_log(sql), error);
}

cr_status_t SQLiteApplyJournal::on_db_error(int rc, const std::string& sql,
                                            const std::string& errtext) {
  if (rc == SQLITE_ERROR && errtext.find("syntax error") != std::string::npos) {
    InfoA(CR_STATUS_NONE, "[SQL SYNTAX ERROR]: [[[\"%s\"]]] %s", sql.c_str(), errtext.c_str());
    return CR_STATUS_BAD_ARG;
  }
  return on_statement_error(rc, sql, errtext);
}

cr_status_t SQLiteApplyJournal::exec_file(const std::string& file, bool whole_first) {
  if (db == nullptr) return log_not_opened(dbfile);
  if (TraceOn()) __Trace("Execute journal file %s", file.c_str());
  std::string content;
  const cr_status_t status = read_sql_file(file, "contents", content);
  return status == CR_STATUS_OK ? exec_file_content(file, content, whole_first) : status;
}

cr_status_t SQLiteApplyJournal::exec_file_content(const std::string& file, std::string& content,
                                                  bool whole_first) {
  const Confined confined(db);
  if (whole_first) {
    const cr_status_t status = exec(content, nullptr);
    if (status != CR_STATUS_BAD_ARG) return status;
  }
  const std::size_t last = content.rfind(';');
  if (last == std::string::npos) {
    InfoA(CR_STATUS_BAD_ARG, "Failed to find a ';' character in the the contents of %s",
          file.c_str());
    return CR_STATUS_BAD_ARG;
  }
  content.resize(last + 1);
  return exec_lines(file, content);
}

cr_status_t SQLiteApplyJournal::exec_lines(const std::string& file, const std::string& content) {
  cr_status_t result = CR_STATUS_OK;
  for (std::size_t start = 0; start < content.size();) {
    const std::size_t end = std::min(content.find('\n', start), content.size());
    const std::string line = content.substr(start, end - start);
    start = end + 1;
    if (is_left_out(line)) continue;
    const cr_status_t status = exec(line, nullptr);
    if (status == CR_STATUS_OK) continue;
    if (status != CR_STATUS_BAD_ARG) {
      ErrorA(status, "Failed to execute the contents of %s", file.c_str());
      return status;
    }
    InfoA(status, "Could not execute the SQL statement %s in the journal file %s", line.c_str(),
          file.c_str());
    result = status;
  }
  return result;
}

}  // namespace sqlitedb
