// SpyPODB: the SQLite store with an ear on its statements and a hand on their outcome.
#pragma once

#include <algorithm>
#include <string>
#include <vector>

#include "podb/sqlite_podb.h"

class SpyPODB : public SQLitePODB {
 public:
  using SQLitePODB::SQLitePODB;

  cr_status_t exec_sql_impl(const std::string& sql, void* context) override {
    statements.push_back(sql);
    if (!failing.empty() && sql.rfind(failing, 0) == 0) return failure;
    return SQLitePODB::exec_sql_impl(replacement.empty() ? sql : replacement, context);
  }

  // How many statements began so.
  auto count_of(const std::string& start) const {
    return std::count_if(statements.begin(), statements.end(),
                         [&](const std::string& sql) { return sql.rfind(start, 0) == 0; });
  }

  std::vector<std::string> statements;
  std::string failing;  // statements that begin so are not run and answer `failure`
  cr_status_t failure = CR_STATUS_BUSY;
  std::string replacement;  // run in place of every statement, unless empty
};
