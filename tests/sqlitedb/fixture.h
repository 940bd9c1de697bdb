// One connection in a directory of its own, with its log, its sleeps and its hooks.
#pragma once

#include <fstream>
#include <functional>
#include <string>

#include "hooks.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

class TestDb : public sqlitedb::sqlite3_wrapper {
 public:
  using sqlite3_wrapper::on_db_error;
  using sqlite3_wrapper::sqlite3_wrapper;

  cr_status_t on_db_createtable() override {
    return schema ? schema() : sqlite3_wrapper::on_db_createtable();
  }
  int on_db_callback(void* arg, int ncols, char** values, char** names) override {
    return row ? row(values) : sqlite3_wrapper::on_db_callback(arg, ncols, values, names);
  }

  std::function<cr_status_t()> schema;
  std::function<int(char** values)> row;
};

class ConnectionTest : public testing::Test {
 protected:
  ConnectionTest() { hooks::state = {}; }

  void write_file(const std::string& content) { std::ofstream(file) << content; }

  // An open database with the table t of n rows: 1, 2, ...
  void make_table(int n) {
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    ASSERT_EQ(db.exec("CREATE TABLE t (a INT)", nullptr), CR_STATUS_OK);
    for (int i = 1; i <= n; ++i) {
      ASSERT_EQ(db.exec("INSERT INTO t VALUES (" + std::to_string(i) + ")", nullptr), CR_STATUS_OK);
    }
  }

  const TempDir dir;
  const std::string file = dir.path("a.db");
  LogCapture log;
  const FakeSleep sleep;
  TestDb db{file};
};
