// Reading and changing a database file past the library.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

using RawRows = std::vector<std::vector<std::string>>;

// Runs SQL on a connection of its own and returns the rows; a NULL reads "NULL".
inline RawRows raw_sql(const std::string& file, const std::string& sql) {
  RawRows rows;
  const auto take = [](void* out, int columns, char** values, char**) {
    auto& row = static_cast<RawRows*>(out)->emplace_back();
    for (int i = 0; i < columns; ++i) row.emplace_back(values[i] != nullptr ? values[i] : "NULL");
    return 0;
  };
  sqlite3* db = nullptr;
  EXPECT_EQ(sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr), SQLITE_OK) << file;
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), take, &rows, nullptr), SQLITE_OK) << sqlite3_errmsg(db);
  sqlite3_close(db);
  return rows;
}
