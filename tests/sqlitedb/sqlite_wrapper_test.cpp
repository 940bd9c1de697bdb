#include <gtest/gtest.h>
#include <sqlite3.h>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/next.h"
#include "tests/support/temp_dir.h"

namespace {

// What closing and the wish for extended codes answer instead, how often a closing was asked for,
// whether a file is read-only, and what the host's failures are mapped to.
int close_answer = SQLITE_OK, codes_answer = SQLITE_OK, closings = 0, read_only = 0, mapped = 0;
bool closing_throws = false;

}  // namespace

cr_status_t _crMapError(const char*, const char*, int) { return mapped; }

int sqlite3_db_readonly(sqlite3*, const char*) { return read_only; }

int sqlite3_extended_result_codes(sqlite3* db, int on) {
  return codes_answer + next(__func__, &sqlite3_extended_result_codes)(db, on);
}

int sqlite3_close(sqlite3* db) {
  ++closings;
  const int rc = close_answer != SQLITE_OK ? close_answer : next(__func__, &sqlite3_close)(db);
  return closing_throws ? throw std::bad_alloc() : rc;
}

namespace {

namespace fs = std::filesystem;
using sqlitedb::db_exception;
constexpr auto kTrace = refhost::LogLevel::Trace;

struct TestDb : sqlitedb::sqlite3_wrapper {
  using sqlite3_wrapper::db;
  using sqlite3_wrapper::on_db_error;
  using sqlite3_wrapper::sqlite3_wrapper;

  cr_status_t on_db_createtable() override { return schema(); }
  int on_db_callback(void*, int, char** values, char**) override { return row(values[0]); }

  std::function<cr_status_t()> schema = [] { return CR_STATUS_OK; };
  std::function<int(const char* value)> row;
};

struct Connection : testing::Test {
  void open_with_rows() {
    ASSERT_EQ(db.init_db(), CR_STATUS_OK);
    ASSERT_EQ(db.exec("CREATE TABLE t (a, b); INSERT INTO t VALUES (1, 0), (2, 0)", nullptr), 0);
  }

  const TempDir dir;
  const std::string file = dir.path("a.db");
  LogCapture log{kTrace};
  std::function<void()> meanwhile;  // done in each sleep
  const FakeSleep sleep{[this](unsigned int) { meanwhile ? meanwhile() : void(); }};
  TestDb db{file};
};

TEST_F(Connection, maps_a_failure_and_throws_corruption_alone) {
  const std::pair<cr_status_t, std::vector<int>> expected[] = {
      {CR_STATUS_OK, {SQLITE_OK, SQLITE_ROW, SQLITE_DONE}},
      {CR_STATUS_BUSY, {SQLITE_BUSY, SQLITE_BUSY_RECOVERY}},
      {CR_STATUS_IO_ERROR, {SQLITE_IOERR, SQLITE_IOERR_READ}},
      {CR_STATUS_CORRUPT, {SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_READONLY_DBMOVED}},
      {CR_STATUS_FAILED, {SQLITE_READONLY, 264, SQLITE_ERROR, SQLITE_FULL, -1}}};
  for (const auto& [status, codes] : expected) {
    for (const int code : codes) EXPECT_EQ(db_exception(code).cr_status(), status) << code;
  }
  EXPECT_THROW(db.on_db_error(SQLITE_CORRUPT), db_exception);
  EXPECT_STREQ(db_exception(SQLITE_FULL, "text").what(), "text");
  EXPECT_STREQ(db_exception(SQLITE_FULL, nullptr).what(), "database or disk is full");
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000000B]: database disk image is malformed");
}

TEST_F(Connection, is_made_for_a_missing_or_an_empty_file_only_and_leaves_none_without_schema) {
  fs::create_symlink(file, file);  // a loop, which cannot be examined
  EXPECT_EQ(db.init_db(), CR_STATUS_FAILED);
  EXPECT_TRUE(fs::remove(file));
  write_file(file, "x");
  EXPECT_EQ(db.init_db(), CR_STATUS_EXISTS);
  for (const cr_status_t status : {CR_STATUS_FAILED, CR_STATUS_IO_ERROR}) {
    EXPECT_EQ(TestDb(file + "/a.db").init_db(), status);
    log.expect_error(status, "Could not create directory " + file);
    mapped = CR_STATUS_IO_ERROR - mapped;
  }
  EXPECT_EQ(TestDb("/proc").init_db(), CR_STATUS_FAILED) << "for which no directory is made";
  db.schema = [] { return CR_STATUS_IO_ERROR; };
  write_file(file, "");
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_EQ(db.init_db(), CR_STATUS_IO_ERROR);
  EXPECT_FALSE(db.has_handle() || fs::exists(file));
  db.schema = [&] { return db.on_db_error(SQLITE_CORRUPT); };
  EXPECT_THROW(db.init_db(), db_exception);
  EXPECT_TRUE(db.has_handle() && !db.is_open() && fs::exists(file));
  close_answer = codes_answer = SQLITE_MISUSE;
  EXPECT_EQ(db.open_db(), CR_STATUS_FAILED) << "still half open";
  close_answer = SQLITE_OK;
  EXPECT_EQ(TestDb(file).open_db(), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to set extended result code for " + file);
  closings = codes_answer = SQLITE_OK;
  EXPECT_TRUE(db.open_db() == CR_STATUS_OK && db.is_open() && closings == 1);
  EXPECT_EQ(db.open_db() + db.init_db() + db.checkopen(), CR_STATUS_OK) << "open already";
  EXPECT_TRUE(db.run_pragma("PRAGMA trusted_schema", "0", nullptr));
  EXPECT_TRUE(db.run_pragma("PRAGMA busy_timeout", "10000", nullptr));
  EXPECT_EQ(db.drop_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Drop database " + file + ".");
  EXPECT_EQ(db.open_db(dir.path()), CR_STATUS_FAILED);
  EXPECT_FALSE(db.has_handle());
  EXPECT_EQ(db.drop_db(), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to open database " + dir.path());
  log.expect_error(CR_STATUS_FAILED, "Failed to delete database file " + dir.path() + ".");
}

TEST_F(Connection, waits_for_its_statements_when_closing_and_is_abandoned_then) {
  closings = 0, read_only = 1;  // for want of a descriptor; memory has no file to be written
  EXPECT_EQ(db.open_db() + TestDb(":memory:").open_db(), CR_STATUS_FAILED);
  EXPECT_EQ(std::exchange(closings, read_only = 0), 2);
  log.clear();
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Open SQLite database " + file);
  sqlite3* const handle = db.db;
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(handle, "SELECT 1", -1, &statement, nullptr);
  meanwhile = [] { throw db_exception(SQLITE_FULL, "text"); };
  EXPECT_EQ(db.close_db(0), CR_STATUS_FAILED);
  log.expect_error(4, "close_db: Catch sqlite database runtime exception [13]: text");
  meanwhile = nullptr;
  EXPECT_EQ(db.close_db(3) + db.close_db(3), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Close SQLite database " + file);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(5, 1));
  log.expect(kTrace, CR_STATUS_NONE, "Database " + file + " is busy, sleep 1 second before retry");
  EXPECT_FALSE(db.has_handle() || db.is_open());
  sqlite3_finalize(statement);
  sqlite3_close(handle);
  fs::current_path(dir.path());
  ASSERT_EQ(TestDb("bare.db").init_db() + db.open_db(), CR_STATUS_OK) << "in no directory";
  sqlite3* const kept = db.db;
  close_answer = SQLITE_MISUSE;
  EXPECT_EQ(db.open_db("other.db"), CR_STATUS_OK);
  EXPECT_NE(db.db, kept);
  close_answer = SQLITE_OK;
  sqlite3_close(kept);
  closing_throws = true;
  EXPECT_EQ(TestDb(file).open_db(), CR_STATUS_OK);
  closing_throws = false;
}

TEST_F(Connection, tells_of_failures_and_hands_over_rows_whose_exceptions_get_out) {
  unsigned long rows = 0;
  EXPECT_EQ(db.exec("", nullptr) + db.get_changes() + db.rollback_transaction(), 2 * 2);
  EXPECT_EQ(db.exec_file(file, false) + db.count_in_table("t", &rows), 2 + CR_STATUS_FAILED);
  EXPECT_EQ(db.count_in_table("t", nullptr) + db.in_transaction(), CR_STATUS_BAD_ARG);
  EXPECT_FALSE(db.run_pragma("PRAGMA page_size", "4096", nullptr));
  for (int i = 0; i < 6; ++i) log.expect_error(CR_STATUS_NOT_FOUND, file + " is not opened.");
  open_with_rows();
  write_file(dir.path("sql"), "INSERT INTO t VALUES (3, 0)");
  EXPECT_EQ(db.exec_file(dir.path("sql"), false) + db.exec_file(dir.path(), false), 4);
  log.expect(kTrace, CR_STATUS_NONE, "Execute sql file " + dir.path("sql"));
  log.expect_error(CR_STATUS_FAILED, "Failed to load the content of " + dir.path());
  EXPECT_TRUE(db.count_in_table("t", &rows) == CR_STATUS_OK && rows == 3);
  EXPECT_FALSE(db.run_pragma("SELECT a FROM t", "4", nullptr) || db.run_pragma("bad", "", nullptr));
  EXPECT_TRUE(db.run_pragma("SELECT NULL", "", nullptr));
  log.expect(kTrace, -1, "Run \"SELECT a FROM t\" on SQLite datase, expect result: 4");
  EXPECT_TRUE(db.count_in_table("t UNION ALL SELECT NULL", &rows) == CR_STATUS_OK && rows == 0);
  EXPECT_EQ(db.count_in_table("gone", &rows), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "count_in_table: faile to exec (SELECT COUNT(*) FROM gone;) ");
  const std::string sql = "bad " + std::string(1020, 'x');
  EXPECT_EQ(db.exec(sql, nullptr) + db.exec(sql + "x", nullptr), 2 * CR_STATUS_FAILED);
  for (const std::string& shown : {sql, sql.substr(0, 1020) + "...."}) {
    log.expect_error(
        4, file + ": failed to execute [[[\"" + shown + "\"]]] (1:near \"bad\": syntax error)");
  }
  std::string seen;
  db.row = [&](const char* value) { return seen += value, 0; };
  EXPECT_EQ(db.exec("SELECT a FROM t; DELETE FROM t WHERE a > 1", &seen), CR_STATUS_OK);
  EXPECT_EQ(seen, "123");
  EXPECT_EQ(db.get_changes(), 2);
  db.row = [](const char*) -> int { throw 7; };
  EXPECT_THROW(db.exec("SELECT a FROM t", &db), int);
  EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
  EXPECT_TRUE(sleep.sleeps().empty()) << "a statement was left over";
  sqlitedb::sqlite3_wrapper plain(":memory:");
  EXPECT_EQ(plain.init_db() + plain.exec("SELECT 1", &plain), CR_STATUS_FAILED);
  log.expect_error(4, ":memory:: failed to execute [[[\"SELECT 1\"]]] (4:query aborted)");
}

TEST_F(Connection, waits_for_writers_and_is_durable_each_time_it_is_opened) {
  open_with_rows();
  TestDb other(file);
  EXPECT_FALSE(other.open_db() || other.run_pragma("BEGIN EXCLUSIVE", "", nullptr));
  EXPECT_EQ(other.exec("DELETE FROM t", nullptr), CR_STATUS_OK) << "too late to be durable";
  EXPECT_EQ(db.close_db(0) + db.open_db(), CR_STATUS_OK);
  sqlite3_busy_timeout(db.db, 0);  // so that nobody really waits
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  meanwhile = [] { throw 7; };
  EXPECT_THROW(db.begin_transaction(), int);
  meanwhile = [&] { other.rollback_transaction(); };
  EXPECT_EQ(db.begin_transaction() + db.rollback_transaction(), CR_STATUS_OK);
  EXPECT_EQ(other.exec("DELETE FROM t", nullptr), CR_STATUS_OK);
  for (auto* each : {&db, &other})
    EXPECT_TRUE(each->run_pragma("PRAGMA synchronous", "3", nullptr));
}

TEST_F(Connection, throws_corruption_which_transactions_return) {
  open_with_rows();
  fs::rename(file, dir.path("elsewhere"));
  EXPECT_THROW(db.exec("DELETE FROM t", nullptr), db_exception);
  write_file(file, std::string(4096, 'x'));
  closings = 0;
  ASSERT_TRUE(db.open_db(file) == CR_STATUS_OK && closings == 1) << "once, of the old connection";
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_CORRUPT);
  log.expect_error(67,
                   "begin_transaction: Catch sqlite database runtime exception [26]: file is "
                   "not a database");
  log.clear();
}

class ApplyJournal : public testing::Test, protected sqlitedb::SQLiteApplyJournal {
 protected:
  ApplyJournal() : SQLiteApplyJournal(":memory:") {}

  // With a table that holds the row 0.
  void start_afresh() {
    open_db(":memory:");
    exec("CREATE TABLE t (id INTEGER PRIMARY KEY, text); INSERT INTO t VALUES (0, 0)", nullptr);
    log.clear();
  }
  cr_status_t replay(const std::string& journal, bool whole_first) {
    write_file(file, journal);
    return exec_file(file, whole_first);
  }
  std::string ids() {
    std::string found;
    run_pragma("SELECT id FROM t ORDER BY id", "every row", &found);
    return found;
  }

  const TempDir dir;
  const std::string file = dir.path("j");
  LogCapture log{kTrace};
};

TEST_F(ApplyJournal, RestoresInOneBatchOrLineByLineAndTellsWhatItCouldNotRun) {
  const struct {
    const char* journal;
    bool whole_first;
    cr_status_t status;
    std::string ids, told;
  } cases[] = {
      {"DELETE FROM t;\nBOGUS;\nREPLACE INTO t VALUES (1, 2);", true, CR_STATUS_BAD_ARG, "1",
       "[SQL SYNTAX ERROR]: [[[\"BOGUS;\"]]] near \"BOGUS\": syntax error\n"
       "Could not execute the SQL statement BOGUS; in the journal file " +
           file},
      {"\nINSERT INTO t VALUES (1, 2);\n\ndElEtE FROM t;\nDrop TABLE t;\nEND;\n(;;;;\n"
       "DELETED\nINSERT INTO t VALUES (2, 2);\nINSERT INTO t VALUES (3, 2)",
       false, 0, "012", ""},
      {"INSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (3, 2);",
       false, CR_STATUS_FAILED, "01", "Failed to execute the contents of " + file},
      {"SELECT 1 FROM missing;", true, CR_STATUS_FAILED, "0", "no such table: missing"},
      {"SELECT load_extension('');", true, 4, "0", "not authorized to use function: load_ext"},
      {"INSERT INTO t VALUES (1, 2)", false, CR_STATUS_BAD_ARG, "0",
       "Execute journal file " + file + "\nFailed to find a ';' character in the the contents"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.journal);
    start_afresh();
    EXPECT_EQ(replay(c.journal, c.whole_first), c.status);
    std::string told;
    for (const auto& line : log.lines()) told += line.message + "\n";
    EXPECT_NE(told.find(c.told), std::string::npos) << told;
    EXPECT_EQ(ids(), c.ids);
  }
  EXPECT_EQ(exec_file(dir.path(), true), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the contents of " + dir.path());
  log.clear();
}

TEST_F(ApplyJournal, CutAtAnyByteKeepsItsWholeLinesAndTellsOfAFailedOne) {
  const std::string line = "REPLACE INTO t VALUES (1, 'drop;''');\n";
  const std::string journal = line + "REPLACE INTO t VALUES (2, '\"');\n";
  for (std::size_t cut = 0; cut <= journal.size(); ++cut) {
    for (const bool whole_first : {false, true}) {
      SCOPED_TRACE(cut);
      start_afresh();
      const cr_status_t status = replay(journal.substr(0, cut), whole_first);
      const std::size_t end = cut + (whole_first ? 2 : 1);  // a batch bears a missing ";"
      EXPECT_EQ(ids(), end >= journal.size() ? "012" : end >= line.size() ? "01" : "0");
      EXPECT_TRUE(status != CR_STATUS_OK || cut == 0 || end >= line.size());
    }
  }
  log.clear();
}

// The replay may be the connection's first use, which also makes its commits outlive power
// failures.
TEST_F(ApplyJournal, StaysWithinItsDatabaseAndLessensNoDurabilityDuringAReplayOnly) {
  std::string content = ";";
  EXPECT_EQ(exec("", nullptr) + exec_file("", true) + exec_file_content("", content, true), 3 * 2);
  const std::string outside = "'" + dir.path("outside.db") + "'";
  const std::pair<std::string, cr_status_t> cases[] = {
      {"SELECT 1; CREATE TABLE t AS SELECT abs(-1);", CR_STATUS_OK},
      {"PRAGMA synchronous=OFF;", CR_STATUS_FAILED},
      {"PRAGMA synchronous;", CR_STATUS_FAILED},
      {"PRAGMA user_version=EXTRA;", CR_STATUS_FAILED},
      {"ATTACH " + outside + " AS other;", CR_STATUS_FAILED},
      {"VACUUM INTO " + outside + ";", CR_STATUS_FAILED}};
  for (const auto& [journal, status] : cases) {
    SCOPED_TRACE(journal);
    EXPECT_EQ(open_db(":memory:"), CR_STATUS_OK);
    EXPECT_EQ(replay(journal, true), status);
    EXPECT_FALSE(std::filesystem::exists(dir.path("outside.db")));
    EXPECT_TRUE(status != CR_STATUS_OK || run_pragma("PRAGMA synchronous", "3", nullptr));
    EXPECT_EQ(exec("ATTACH ':memory:' AS other; PRAGMA user_version = 3", nullptr), CR_STATUS_OK);
  }
  write_file(dir.path("damaged"), std::string(4096, 'x'));
  EXPECT_EQ(open_db(dir.path("damaged")), CR_STATUS_OK);
  EXPECT_THROW(replay("SELECT * FROM t;", true), sqlitedb::db_exception);
  log.clear();
}

}  // namespace
