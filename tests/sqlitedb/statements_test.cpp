#include <gtest/gtest.h>
#include <sqlite3.h>

#include <filesystem>
#include <thread>

#include "fixture.h"

namespace {

using sqlitedb::db_exception;
using Statements = ConnectionTest;

TEST_F(Statements, hand_rows_over_only_when_asked) {
  make_table(3);
  std::string seen;
  db.row = [&](char** values) {
    seen += values[0];
    return 0;
  };
  EXPECT_EQ(db.exec("SELECT a FROM t ORDER BY a", nullptr), CR_STATUS_OK);
  EXPECT_EQ(seen, "");
  EXPECT_EQ(db.exec("SELECT a FROM t ORDER BY a", &seen), CR_STATUS_OK);
  EXPECT_EQ(seen, "123");
  EXPECT_EQ(db.exec("DELETE FROM t WHERE a > 1", nullptr), CR_STATUS_OK);
  EXPECT_EQ(db.get_changes(), 2);
}

TEST_F(Statements, stop_at_the_first_row_that_the_base_gets) {
  make_table(1);
  EXPECT_EQ(db.exec("SELECT a FROM t", &db), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, file +
                                         ": failed to execute [[[\"SELECT a FROM t\"]]] (4:query "
                                         "aborted)");
}

TEST_F(Statements, let_a_row_hooks_exception_out_and_work_on) {
  make_table(2);
  struct Thrown {};
  db.row = [](char**) -> int { throw Thrown(); };
  EXPECT_THROW(db.exec("SELECT a FROM t", &db), Thrown);
  EXPECT_EQ(db.exec("INSERT INTO t VALUES (3)", nullptr), CR_STATUS_OK);
  std::thread([&] {
    EXPECT_THROW(db.exec("SELECT a FROM t", &db), Thrown);
    EXPECT_EQ(db.exec("INSERT INTO t VALUES (4)", nullptr), CR_STATUS_OK);
  }).join();
  EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
  EXPECT_TRUE(sleep.sleeps().empty()) << "no statement was left over";
}

TEST_F(Statements, are_cut_in_log_lines_beyond_1024_bytes) {
  make_table(0);
  for (const std::size_t size : {1023U, 1024U, 1025U, 5000U}) {
    const std::string sql = "bad " + std::string(size - 4, 'x');
    const std::string shown = size <= 1024 ? sql : sql.substr(0, 1020) + "....";
    EXPECT_EQ(db.exec(sql, nullptr), CR_STATUS_FAILED);
    log.expect_error(CR_STATUS_FAILED, file + ": failed to execute [[[\"" + shown +
                                           "\"]]] (1:near \"bad\": syntax error)");
    log.expect_info(CR_STATUS_NONE, "[DBERR 00000001]: SQL logic error");
  }
}

TEST_F(Statements, throw_corruption_after_logging_it) {
  write_file(std::string(4096, 'x'));
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_THROW(db.exec("SELECT * FROM t", nullptr), db_exception);
  log.expect_error(CR_STATUS_CORRUPT, file +
                                          ": failed to execute [[[\"SELECT * FROM t\"]]] (26:file "
                                          "is not a database)");
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000001A]: file is not a database");
}

TEST_F(Statements, take_a_file_that_was_moved_away_for_corrupt) {
  make_table(1);
  std::filesystem::rename(file, dir.path("elsewhere"));
  EXPECT_THROW(db.exec("INSERT INTO t VALUES (2)", nullptr), db_exception);
  log.expect_info(CR_STATUS_NONE, "[DBERR 00000408]: attempt to write a readonly database");
  log.clear();
}

TEST_F(Statements, come_from_a_file_as_one_batch) {
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  std::ofstream(dir.path("sql")) << "CREATE TABLE t (a);\nINSERT INTO t VALUES (1), (2);";
  EXPECT_EQ(db.exec_file(dir.path("sql"), true), CR_STATUS_OK);
  unsigned long rows = 0;
  EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_OK);
  EXPECT_EQ(rows, 2U);
  EXPECT_EQ(db.exec_file(dir.path("missing"), false), CR_STATUS_OK);
  EXPECT_EQ(db.exec_file(dir.path(), false), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the content of " + dir.path());
}

TEST_F(Statements, are_counted_as_failed_when_a_count_cannot_be_made) {
  make_table(0);
  unsigned long rows = 5;
  EXPECT_EQ(db.count_in_table("none", &rows), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "count_in_table: faile to exec (SELECT COUNT(*) FROM none;) ");
  EXPECT_EQ(db.count_in_table("t", nullptr), CR_STATUS_BAD_ARG);
}

TEST_F(Statements, need_a_connection) {
  unsigned long rows = 0;
  std::string text;
  const std::function<void()> operations[] = {
      [&] { EXPECT_EQ(db.exec("SELECT 1", nullptr), CR_STATUS_NOT_FOUND); },
      [&] { EXPECT_EQ(db.exec_file(file, false), CR_STATUS_NOT_FOUND); },
      [&] { EXPECT_EQ(db.begin_transaction(), CR_STATUS_NOT_FOUND); },
      [&] { EXPECT_EQ(db.commit_transaction(), CR_STATUS_NOT_FOUND); },
      [&] { EXPECT_EQ(db.rollback_transaction(), CR_STATUS_NOT_FOUND); },
      [&] { EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_FAILED); },
      [&] { EXPECT_FALSE(db.run_pragma("PRAGMA user_version", "0", &text)); },
      [&] { EXPECT_FALSE(db.run_integrity_check(text)); },
      [&] { EXPECT_EQ(db.get_changes(), 0); }};
  for (const auto& operation : operations) {
    operation();
    log.expect_error(CR_STATUS_NOT_FOUND, file + " is not opened.");
    EXPECT_TRUE(log.lines().empty());
  }
  EXPECT_FALSE(db.in_transaction());
}

TEST_F(Statements, of_a_pragma_stop_at_the_expected_row) {
  make_table(0);
  ASSERT_EQ(db.exec("ALTER TABLE t ADD b; ALTER TABLE t ADD c", nullptr), CR_STATUS_OK);
  const struct {
    std::string pragma, expected;
    bool found;
    std::string rows;
  } cases[] = {{"PRAGMA table_info(t)", "1", true, "+01"},
               {"PRAGMA table_info(t)", "3", false, "+012"},
               {"PRAGMA table_info(none)", "", false, "+"},
               {"no pragma", "", false, "+"}};
  for (const auto& each : cases) {
    std::string rows = "+";
    EXPECT_EQ(db.run_pragma(each.pragma, each.expected, &rows), each.found) << each.pragma;
    EXPECT_EQ(rows, each.rows);
    EXPECT_EQ(db.run_pragma(each.pragma, each.expected, nullptr), each.found);
  }
}

TEST_F(Statements, tell_a_damaged_database_from_a_sound_one) {
  make_table(1);
  std::string result;
  EXPECT_TRUE(db.run_integrity_check(result));
  EXPECT_EQ(result, "ok");
  ASSERT_EQ(db.close_db(0), CR_STATUS_OK);
  std::fstream(file, std::ios::in | std::ios::out).seekp(4096) << std::string(4096, 'x');
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  result.clear();
  EXPECT_FALSE(db.run_integrity_check(result));
  EXPECT_NE(result, "");
}

}  // namespace
