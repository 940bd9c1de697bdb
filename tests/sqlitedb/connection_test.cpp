#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <thread>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {
int asked_timeout = 0;
cr_status_t mapped_error = CR_STATUS_OK;
}  // namespace

// SQLite's own gets 0, so that nobody really waits for a lock.
extern "C" int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  asked_timeout = milliseconds;
  using Function = decltype(sqlite3_busy_timeout);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, __func__))(db, 0);
}

extern "C" cr_status_t _crMapError(const char*, const char*, int) { return mapped_error; }

namespace {

namespace fs = std::filesystem;
using sqlitedb::db_exception;

struct TestDb : sqlitedb::sqlite3_wrapper {
  using sqlite3_wrapper::db;
  using sqlite3_wrapper::on_db_error;
  using sqlite3_wrapper::sqlite3_wrapper;

  cr_status_t on_db_createtable() override { return schema(); }
  int on_db_callback(void* arg, int ncols, char** values, char** names) override {
    return row ? row(values[0]) : sqlite3_wrapper::on_db_callback(arg, ncols, values, names);
  }

  std::function<cr_status_t()> schema = [] { return CR_STATUS_OK; };
  std::function<int(const char* value)> row;
};

class Connection : public testing::Test {
 protected:
  void write_file(const std::string& content) const { std::ofstream(file) << content; }

  void open_with_rows() {
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    ASSERT_EQ(db.exec("CREATE TABLE t (a, b); INSERT INTO t VALUES (1, 0), (2, 0)", nullptr), 0);
  }

  void expect_failed(cr_status_t status, const std::string& sql, const std::string& reason) {
    log.expect_error(status, file + ": failed to execute [[[\"" + sql + "\"]]] (" + reason + ")");
  }

  const TempDir dir;
  const std::string file = dir.path("a.db");
  LogCapture log;
  const FakeSleep sleep;
  TestDb db{file};
};

TEST_F(Connection, maps_a_failure_and_throws_corruption_alone) {
  const std::vector<std::pair<cr_status_t, std::vector<int>>> expected = {
      {CR_STATUS_OK, {SQLITE_OK, SQLITE_ROW, SQLITE_DONE, SQLITE_OK_LOAD_PERMANENTLY}},
      {CR_STATUS_BUSY, {SQLITE_BUSY, SQLITE_BUSY_RECOVERY}},
      {CR_STATUS_IO_ERROR, {SQLITE_IOERR, SQLITE_IOERR_READ}},
      {CR_STATUS_CORRUPT, {SQLITE_CORRUPT, SQLITE_CORRUPT_INDEX, SQLITE_NOTADB, 1032}},
      {CR_STATUS_FAILED, {SQLITE_READONLY, 264, SQLITE_ERROR, SQLITE_FULL, SQLITE_NOMEM, -1}}};
  for (const auto& [status, codes] : expected) {
    for (const int code : codes) EXPECT_EQ(db_exception(code).cr_status(), status) << code;
  }
  EXPECT_EQ(db_exception(SQLITE_ERROR, CR_STATUS_BUSY).cr_status(), CR_STATUS_BUSY);
  EXPECT_EQ(db.on_db_error(SQLITE_IOERR_READ), CR_STATUS_IO_ERROR);
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000010A]: disk I/O error");
  EXPECT_THROW(db.on_db_error(SQLITE_CORRUPT), db_exception);
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000000B]: database disk image is malformed");
}

TEST_F(Connection, never_takes_a_file_that_cannot_be_examined_for_a_missing_one) {
  fs::create_symlink(file, file);  // a loop
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_EQ(db.init_db(), CR_STATUS_FAILED);
  EXPECT_FALSE(db.has_handle());
  EXPECT_TRUE(fs::is_symlink(file));
}

TEST_F(Connection, is_made_for_a_missing_or_an_empty_file_only) {
  EXPECT_EQ(db.checkopen(), CR_STATUS_NOT_FOUND);
  write_file("x");
  EXPECT_EQ(db.init_db(), CR_STATUS_EXISTS);
  EXPECT_FALSE(db.has_handle());
  write_file("");
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_EQ(db.init_db(), CR_STATUS_OK);
  EXPECT_TRUE(db.is_open());
  EXPECT_EQ(asked_timeout, 10000);
  EXPECT_EQ(TestDb(dir.path("x/y/a.db")).init_db(), CR_STATUS_OK);
  EXPECT_EQ(fs::status(dir.path("x/y")).permissions(), fs::perms::owner_all);
}

TEST_F(Connection, tells_why_its_directory_cannot_be_created) {
  write_file("in the way");
  const std::string below = file + "/sub";
  const cr_status_t own = wa_createtree(below.c_str(), 0700);
  for (const cr_status_t mapped : {CR_STATUS_BAD_RECORD, CR_STATUS_OK}) {
    mapped_error = mapped;
    const cr_status_t expected = mapped != CR_STATUS_OK ? mapped : own;
    EXPECT_EQ(TestDb(below + "/a.db").init_db(), expected);
    log.expect_error(expected, "Could not create directory " + below);
  }
}

TEST_F(Connection, leaves_no_file_without_its_schema_and_none_when_dropped) {
  db.schema = [] { return CR_STATUS_IO_ERROR; };
  EXPECT_EQ(db.init_db(), CR_STATUS_IO_ERROR);
  EXPECT_FALSE(db.has_handle() || fs::exists(file));
  open_with_rows();
  EXPECT_EQ(db.drop_db(), CR_STATUS_OK);
  EXPECT_FALSE(db.has_handle() || fs::exists(file));
}

TEST_F(Connection, is_half_open_when_its_schema_throws_and_opens_afterwards_once) {
  db.schema = [&] { return db.on_db_error(SQLITE_CORRUPT); };
  EXPECT_THROW(db.init_db(), db_exception);
  EXPECT_TRUE(db.has_handle() && !db.is_open() && fs::exists(file));
  log.clear();
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Close SQLite database " + file);
  log.expect_info(CR_STATUS_OK, "Open SQLite database " + file);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(db.open_db(dir.path()), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to open database " + dir.path());
  EXPECT_FALSE(db.has_handle());
}

TEST_F(Connection, waits_for_its_statements_when_closing_and_is_abandoned_in_the_end) {
  const struct {
    unsigned long retries;
    unsigned int done_after, sleeps;
  } cases[] = {{3, 0, 0}, {3, 2, 2}, {3, 4, 4}, {3, 9, 4}, {0, 9, 1}};
  for (const auto& each : cases) {
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    sqlite3* const handle = db.db;
    sqlite3_stmt* statement = nullptr;
    if (each.done_after > 0) sqlite3_prepare_v2(handle, "SELECT 1", -1, &statement, nullptr);
    unsigned int slept = 0;
    const FakeSleep counted([&](unsigned int) {
      if (++slept == each.done_after) sqlite3_finalize(statement);
    });
    EXPECT_EQ(db.close_db(each.retries), CR_STATUS_OK);
    EXPECT_FALSE(db.has_handle() || db.is_open());
    EXPECT_EQ(counted.sleeps(), std::vector<unsigned int>(each.sleeps, 1));
    if (each.done_after > slept) sqlite3_finalize(statement);
    const bool abandoned = slept > each.retries;
    if (abandoned) sqlite3_close(handle);
  }
}

TEST_F(Connection, hands_over_rows_when_asked) {
  open_with_rows();
  EXPECT_EQ(db.exec("SELECT a FROM t", &db), CR_STATUS_FAILED) << "nobody takes the rows";
  expect_failed(CR_STATUS_FAILED, "SELECT a FROM t", "4:query aborted");
  std::string seen;
  db.row = [&](const char* value) { return seen += value, 0; };
  EXPECT_EQ(db.exec("SELECT a FROM t", nullptr), CR_STATUS_OK);
  EXPECT_EQ(db.exec("SELECT a FROM t; DELETE FROM t WHERE a > 0", &seen), CR_STATUS_OK);
  EXPECT_EQ(seen, "12");
  EXPECT_EQ(db.get_changes(), 2);
}

TEST_F(Connection, lets_the_exception_of_a_row_hook_out_and_works_on) {
  open_with_rows();
  db.row = [](const char*) -> int { throw 7; };
  EXPECT_THROW(db.exec("SELECT a FROM t", &db), int);
  std::thread([&] { EXPECT_EQ(db.exec("DELETE FROM t", nullptr), CR_STATUS_OK); }).join();
  EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
  EXPECT_TRUE(sleep.sleeps().empty()) << "a statement was left over";
}

TEST_F(Connection, cuts_statements_beyond_1024_bytes_in_log_lines) {
  open_with_rows();
  const std::string sql = "bad " + std::string(1020, 'x');
  for (const auto& [run, shown] :
       {std::pair(sql, sql), {sql + "x", sql.substr(0, 1020) + "...."}}) {
    EXPECT_EQ(db.exec(run, nullptr), CR_STATUS_FAILED);
    expect_failed(CR_STATUS_FAILED, shown, "1:near \"bad\": syntax error");
  }
}

TEST_F(Connection, throws_corruption_which_transactions_return) {
  write_file(std::string(4096, 'x'));
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_THROW(db.exec("SELECT * FROM t", nullptr), db_exception);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_CORRUPT);
  const std::string reason = "file is not a database";
  expect_failed(CR_STATUS_CORRUPT, "SELECT * FROM t", "26:" + reason);
  expect_failed(CR_STATUS_CORRUPT, "BEGIN IMMEDIATE TRANSACTION;", "26:" + reason);
  log.expect_error(CR_STATUS_CORRUPT,
                   "begin_transaction: Catch sqlite database runtime exception [26]: " + reason);
}

TEST_F(Connection, takes_a_file_that_was_moved_away_for_corrupt) {
  open_with_rows();
  fs::rename(file, dir.path("elsewhere"));
  EXPECT_THROW(db.exec("DELETE FROM t", nullptr), db_exception);
  log.clear();
}

TEST_F(Connection, runs_a_file_and_counts_rows) {
  open_with_rows();
  std::ofstream(dir.path("sql")) << "INSERT INTO t VALUES (3, 0);\nDELETE FROM t WHERE a < 3;";
  EXPECT_EQ(db.exec_file(dir.path("sql"), true), CR_STATUS_OK);
  EXPECT_EQ(db.exec_file(dir.path("missing"), true), CR_STATUS_OK);
  EXPECT_EQ(db.exec_file(dir.path(), true), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the content of " + dir.path());
  unsigned long rows = 0;
  EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_OK);
  EXPECT_EQ(rows, 1U);
  EXPECT_EQ(db.count_in_table("none", &rows), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "count_in_table: faile to exec (SELECT COUNT(*) FROM none;) ");
}

TEST_F(Connection, is_needed_by_statements) {
  unsigned long rows = 0;
  EXPECT_EQ(db.exec("SELECT 1", nullptr), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.commit_transaction(), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_FAILED);
  for (int i = 0; i < 3; ++i) log.expect_error(CR_STATUS_NOT_FOUND, file + " is not opened.");
}

TEST_F(Connection, reads_a_pragma_up_to_the_expected_row_and_finds_damage) {
  open_with_rows();
  std::string rows;
  EXPECT_TRUE(db.run_pragma("PRAGMA table_info(t)", "0", &rows));
  EXPECT_FALSE(db.run_pragma("PRAGMA table_info(t)", "2", &rows));
  EXPECT_TRUE(db.run_integrity_check(rows));
  EXPECT_EQ(rows, "001ok");
  ASSERT_EQ(db.close_db(0), CR_STATUS_OK);
  std::fstream(file, std::ios::in | std::ios::out).seekp(4096) << std::string(4096, 'x');
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_FALSE(db.run_integrity_check(rows));
}

TEST_F(Connection, waits_for_another_writer_60_times) {
  open_with_rows();
  TestDb other(file);
  ASSERT_EQ(other.open_db(), CR_STATUS_OK);
  ASSERT_EQ(other.begin_transaction(), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  log.expect_info(CR_STATUS_BUSY, file +
                                      ": [[[\"BEGIN IMMEDIATE TRANSACTION;\"]]] (5:database is "
                                      "locked) returns SQLITE_BUSY.");
  const FakeSleep meanwhile([&](unsigned int) { other.rollback_transaction(); });
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_OK);
  EXPECT_EQ(meanwhile.sleeps().size(), 1U);
  EXPECT_TRUE(db.in_transaction());
  EXPECT_EQ(db.commit_transaction(), CR_STATUS_OK);
  EXPECT_FALSE(db.in_transaction());
}

}  // namespace
