// Running statements.
#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

#include "host/log.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sql_file_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

namespace {

struct FreeBySQLite {
  void operator()(char* text) const { sqlite3_free(text); }
};
using SQLiteText = std::unique_ptr<char, FreeBySQLite>;

// Whether `sql` is one statement that, by its first word, commits nothing.
bool only_reads(const std::string& sql) {
  const auto begins_with = [&](const char* word) {
    return sqlite3_strnicmp(sql.c_str(), word, static_cast<int>(std::strlen(word))) == 0;
  };
  if (!sql.empty() && !begins_with("SELECT") && !begins_with("PRAGMA")) return false;
  const std::string::size_type end = sql.find(';');
  return end == std::string::npos || end + 1 == sql.size();
}

std::string error_text(const SQLiteText& text) { return text ? text.get() : "null"; }

}  // namespace

struct sqlite3_wrapper::exec_context {
  sqlite3_wrapper* owner;
  void* arg;
  std::exception_ptr thrown;
};

int sqlite3_wrapper::on_db_callback(void*, int, char**, char**) { return -1; }

// An exception that crossed SQLite's frames would leave the connection locked for ever: it waits in
// the context until they are gone.
int sqlite3_wrapper::exec_callback(void* context, int ncols, char** values, char** names) {
  auto* running = static_cast<exec_context*>(context);
  if (running->arg == nullptr) return 0;
  // A value that SQLite had no memory for reads as NULL: a sound row must not pass for a damaged
  // one.
  if (sqlite3_errcode(running->owner->db) == SQLITE_NOMEM) return -1;
  try {
    return running->owner->on_db_callback(running->arg, ncols, values, names);
  } catch (...) {
    running->thrown = std::current_exception();
    return -1;
  }
}

cr_status_t sqlite3_wrapper::exec(const std::string& sql, void* arg) {
  if (db == nullptr) return log_not_opened(dbfile);
  if (TraceOn()) {
    __Trace("Exec sql statement [[[%s]]] for %s", sql.c_str(), dbfile.c_str());
  }
  std::string error;
  const int rc = run_statements(sql, arg, error);
  if (rc == SQLITE_OK) return CR_STATUS_OK;
  return on_statement_error(rc, shortened_for_log(sql), error);
}

int sqlite3_wrapper::run_statements(const std::string& sql, void* arg, std::string& error) {
  exec_context context{this, arg, nullptr};
  char* text = nullptr;
  int rc = only_reads(sql) ? SQLITE_OK : prepare_to_commit(&text);
  if (rc == SQLITE_OK) rc = sqlite3_exec(db, sql.c_str(), exec_callback, &context, &text);
  error = error_text(SQLiteText(text));
  if (context.thrown) std::rethrow_exception(context.thrown);
  return rc;
}

cr_status_t sqlite3_wrapper::on_statement_error(int code, const std::string& shown,
                                                const std::string& error) {
  const cr_status_t status = db_exception::dberr_to_crstatus(code);
  // Waiting for another connection is everyday; the extended busy codes are not.
  if (code == SQLITE_BUSY) {
    InfoA(status, "%s: [[[\"%s\"]]] (%d:%s) returns SQLITE_BUSY.", dbfile.c_str(), shown.c_str(),
          code, error.c_str());
  } else {
    ErrorA(status, "%s: failed to execute [[[\"%s\"]]] (%d:%s)", dbfile.c_str(), shown.c_str(),
           code, error.c_str());
  }
  return on_db_error(code);
}

cr_status_t sqlite3_wrapper::exec_file(const std::string& file, bool) {
  if (db == nullptr) return log_not_opened(dbfile);
  if (TraceOn()) __Trace("Execute sql file %s", file.c_str());
  std::string sql;
  const cr_status_t status = read_sql_file(file, "content", sql);
  return status == CR_STATUS_OK ? exec(sql, nullptr) : status;
}

int sqlite3_wrapper::count_callback(void* out, int, char** values, char**) {
  const long long rows = values[0] != nullptr ? std::atoll(values[0]) : 0;
  *static_cast<unsigned long*>(out) = static_cast<unsigned long>(rows);
  return 0;
}

cr_status_t sqlite3_wrapper::count_in_table(const std::string& table, unsigned long* count) {
  if (count == nullptr) return CR_STATUS_BAD_ARG;
  if (db == nullptr) {
    log_not_opened(dbfile);
    return CR_STATUS_FAILED;  // not the logged status, intended
  }
  const std::string sql = "SELECT COUNT(*) FROM " + table + ";";
  // Corruption counts as any failure here: nothing is thrown.
  if (sqlite3_exec(db, sql.c_str(), count_callback, count, nullptr) == SQLITE_OK) {
    return CR_STATUS_OK;
  }
  ErrorA(CR_STATUS_FAILED, "%s: faile to exec (%s) ", "count_in_table", sql.c_str());
  return CR_STATUS_FAILED;
}

int sqlite3_wrapper::get_changes() const {
  if (db != nullptr) return sqlite3_changes(db);
  log_not_opened(dbfile);
  return 0;
}

}  // namespace sqlitedb
