// Pragmas and the integrity check.
#include <sqlite3.h>

#include <memory>
#include <string_view>

#include "host/log.h"
#include "sqlitedb/failure_internal.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace sqlitedb {

namespace {

struct Finalize {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, Finalize>;

// Null when SQLite does not take it.
Statement prepared(sqlite3* db, const std::string& sql) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
  return Statement(statement);
}

// Valid until the statement's next step; a NULL value is an empty text.
std::string_view first_column(sqlite3_stmt* row) {
  const unsigned char* text = sqlite3_column_text(row, 0);
  const int size = sqlite3_column_bytes(row, 0);
  if (text == nullptr) return {};
  return {reinterpret_cast<const char*>(text), static_cast<std::size_t>(size)};
}

}  // namespace

bool sqlite3_wrapper::run_pragma(const std::string& pragma, const std::string& expected,
                                 std::string* result) {
  if (db == nullptr) {
    log_not_opened(dbfile);
    return false;
  }
  if (TraceOn()) {
    __Trace("Run \"%s\" on SQLite datase, expect result: %s", pragma.c_str(), expected.c_str());
  }
  const Statement statement = prepared(db, pragma);
  if (!statement) return false;
  while (sqlite3_step(statement.get()) == SQLITE_ROW) {
    const std::string_view text = first_column(statement.get());
    if (result != nullptr) result->append(text);
    if (text == expected) return true;
  }
  return false;
}

bool sqlite3_wrapper::run_integrity_check(std::string& result) {
  return run_pragma("PRAGMA integrity_check;", "ok", &result);
}

}  // namespace sqlitedb
