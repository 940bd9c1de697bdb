// Takes the place of SQLite's function, so that tests can act between two statements.
#include "tests/cli/ingest_fixture.h"

std::function<int(const std::string&)> on_sql;

int sqlite3_exec(sqlite3* db, const char* sql, int (*row)(void*, int, char**, char**), void* out,
                 char** error) {
  static const auto real =
      reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
  const int code = on_sql && sql != nullptr ? on_sql(sql) : SQLITE_OK;
  return code != SQLITE_OK ? code : real(db, sql, row, out, error);
}
