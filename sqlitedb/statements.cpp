// Running statements.
#include <sqlite3.h>

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <memory>

#include "host/log.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

namespace {

struct FreeBySQLite {
  void operator()(char* text) const { sqlite3_free(text); }
};
using SQLiteText = std::unique_ptr<char, FreeBySQLite>;

std::string error_text(const SQLiteText& text) { return text ? text.get() : "null"; }

void log_failed_statement(const std::string& file, const std::string& sql, int rc,
                          const std::string& error) {
  const cr_status_t status = db_exception::dberr_to_crstatus(rc);
  const std::string shown = shortened_for_log(sql);
  // Waiting for another connection is everyday; the extended busy codes are not.
  if (rc == SQLITE_BUSY) {
    InfoA(status, "%s: [[[\"%s\"]]] (%d:%s) returns SQLITE_BUSY.", file.c_str(), shown.c_str(), rc,
          error.c_str());
  } else {
    ErrorA(status, "%s: failed to execute [[[\"%s\"]]] (%d:%s)", file.c_str(), shown.c_str(), rc,
           error.c_str());
  }
}

// A file that cannot be opened reads as an empty text, intended.
std::string content_of(const std::string& file) {
  std::ifstream stream(file, std::ios::binary);
  // The iterators let the exception of a failed read through, unlike the stream's own operators.
  return {std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>()};
}

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
  exec_context context{this, arg, nullptr};
  char* text = nullptr;
  const int rc = sqlite3_exec(db, sql.c_str(), exec_callback, &context, &text);
  const std::string error = error_text(SQLiteText(text));
  if (context.thrown) std::rethrow_exception(context.thrown);
  if (rc == SQLITE_OK) return CR_STATUS_OK;
  log_failed_statement(dbfile, sql, rc, error);
  return on_db_error(rc);
}

cr_status_t sqlite3_wrapper::exec_file(const std::string& file, bool) {
  if (db == nullptr) return log_not_opened(dbfile);
  if (TraceOn()) __Trace("Execute sql file %s", file.c_str());
  std::string content;
  try {
    content = content_of(file);
  } catch (const std::exception&) {
    ErrorA(CR_STATUS_FAILED, "Failed to load the content of %s", file.c_str());
    return CR_STATUS_FAILED;
  }
  return exec(content, nullptr);
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
