// SpyPODB: the SQLite store with an ear on its statements.
#pragma once

#include <string>
#include <vector>

#include "podb/sqlite_podb.h"

class SpyPODB : public SQLitePODB {
 public:
  using SQLitePODB::SQLitePODB;

  cr_status_t exec_sql_impl(const std::string& sql, void* context) override {
    statements.push_back(sql);
    if (!refused.empty() && sql.compare(0, refused.size(), refused) == 0) return CR_STATUS_BUSY;
    return SQLitePODB::exec_sql_impl(sql, context);
  }

  std::vector<std::string> statements;
  std::string refused;  // statements that begin so answer CR_STATUS_BUSY
};
