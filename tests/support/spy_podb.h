// SpyPODB: the SQLite store with an ear on its statements.
#pragma once

#include "podb/sqlite_podb.h"

class SpyPODB : public SQLitePODB {
 public:
  using SQLitePODB::SQLitePODB;

  cr_status_t exec_sql_impl(const std::string& sql, void* context) override {
    statements.push_back(sql);
    return SQLitePODB::exec_sql_impl(sql, context);
  }

  std::vector<std::string> statements;
};
