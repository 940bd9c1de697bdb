#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>
#include <map>

#include "host/files.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

int asked_timeout = 0;
// What functions answer in place of their work.
std::map<std::string, int> answers;

template <typename Function, typename... Arguments>
int answer(const char* name, Function*, Arguments... arguments) {
  const auto given = answers.find(name);
  if (given != answers.end()) return given->second;
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name))(arguments...);
}

}  // namespace

extern "C" {

int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  asked_timeout = milliseconds;
  return answer(__func__, &sqlite3_busy_timeout, db, 0);  // so that nobody really waits for a lock
}
int sqlite3_close(sqlite3* db) { return answer(__func__, &sqlite3_close, db); }
int sqlite3_extended_result_codes(sqlite3* db, int on) {
  return answer(__func__, &sqlite3_extended_result_codes, db, on);
}
cr_status_t wa_deletefile(const char* path) { return answer(__func__, &wa_deletefile, path); }

}  // extern "C"

namespace {

namespace fs = std::filesystem;
using sqlitedb::db_exception;

struct TestDb : sqlitedb::sqlite3_wrapper {
  using sqlite3_wrapper::db;
  using sqlite3_wrapper::on_db_error;
  using sqlite3_wrapper::sqlite3_wrapper;
  TestDb(const std::string& path, int longest) : sqlite3_wrapper(path, longest) {}

  cr_status_t on_db_createtable() override { return schema(); }
  int on_db_callback(void* arg, int ncols, char** values, char** names) override {
    return row ? row(values[0]) : sqlite3_wrapper::on_db_callback(arg, ncols, values, names);
  }

  std::function<cr_status_t()> schema = [] { return CR_STATUS_OK; };
  std::function<int(const char* value)> row;
};

struct Connection : testing::Test {
  Connection() { answers.clear(); }
  void open_with_rows() {
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    ASSERT_EQ(db.exec("CREATE TABLE t (a, b); INSERT INTO t VALUES (1, 0), (2, 0)", nullptr), 0);
  }

  const TempDir dir;
  const std::string file = dir.path("a.db");
  LogCapture log;
  const FakeSleep sleep;
  TestDb db{file};
};

TEST_F(Connection, maps_a_failure_and_throws_corruption_alone) {
  const std::vector<std::pair<cr_status_t, std::vector<int>>> expected = {
      {CR_STATUS_OK, {SQLITE_OK, SQLITE_ROW, SQLITE_DONE}},
      {CR_STATUS_BUSY, {SQLITE_BUSY, SQLITE_BUSY_RECOVERY}},
      {CR_STATUS_IO_ERROR, {SQLITE_IOERR, SQLITE_IOERR_READ}},
      {CR_STATUS_CORRUPT, {SQLITE_CORRUPT, SQLITE_NOTADB, SQLITE_READONLY_DBMOVED}},
      {CR_STATUS_FAILED, {SQLITE_READONLY, 264, SQLITE_ERROR, SQLITE_FULL, -1}}};
  for (const auto& [status, codes] : expected) {
    for (const int code : codes) EXPECT_EQ(db_exception(code).cr_status(), status) << code;
  }
  EXPECT_EQ(db_exception(SQLITE_OK, 7).cr_status(), 7);
  EXPECT_EQ(db.on_db_error(SQLITE_IOERR_READ), CR_STATUS_IO_ERROR);
  EXPECT_THROW(db.on_db_error(SQLITE_CORRUPT), db_exception);
  log.expect_info(CR_STATUS_NONE, "[DBERR 0000000B]: database disk image is malformed");
}

TEST_F(Connection, tells_what_fails_below_it_and_what_became_of_its_file) {
  const auto init = [&] { return db.init_db(); };
  const auto bad_init = [&] { return db.schema = [] { return CR_STATUS_BUSY; }, db.init_db(); };
  const auto elsewhere = [&] { return db.open_db(dir.path("b.db")); };
  using refhost::LogLevel;
  const struct {
    const char* function;
    int answer;
    bool opened;  // before
    std::function<cr_status_t()> operation;
    cr_status_t status;
    std::string line;
    bool has_handle, has_file;
  } cases[] = {
      {"sqlite3_extended_result_codes", SQLITE_IOERR, false, init, CR_STATUS_IO_ERROR,
       "Failed to set extended result code for " + file, false, false},
      {"wa_deletefile", CR_STATUS_BUSY, false, bad_init, CR_STATUS_BUSY,
       "Could not delete bad db file " + file, false, true},
      {"wa_deletefile", CR_STATUS_BUSY, true, [&] { return db.drop_db(); }, CR_STATUS_BUSY,
       "Failed to delete database file " + file + ".", false, true},
      {"", 0, true, [&] { return db.drop_db(); }, 0, "Drop database " + file + ".", false, false},
      {"sqlite3_close", SQLITE_MISUSE, true, [&] { return db.close_db(3); }, CR_STATUS_FAILED,
       "Close SQLite database " + file, true, true},
      {"sqlite3_close", SQLITE_MISUSE, true, elsewhere, CR_STATUS_OK,
       "Open SQLite database " + dir.path("b.db"), true, true}};
  refhost::set_log_level(LogLevel::Trace);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    if (c.opened) open_with_rows();
    sqlite3* const before = db.db;
    answers = {{c.function, c.answer}};
    EXPECT_EQ(c.operation(), c.status);
    answers.clear();
    EXPECT_EQ(db.has_handle(), c.has_handle);
    EXPECT_EQ(fs::exists(file), c.has_file);
    const auto is_told = [&](const auto& line) { return line.message == c.line; };
    const auto lines = log.lines();
    EXPECT_EQ(std::count_if(lines.begin(), lines.end(), is_told), 1);
    if (before != db.db && c.answer == SQLITE_MISUSE) sqlite3_close(before);  // abandoned
    db.open_db(file), db.drop_db(), log.clear();
  }
}

TEST_F(Connection, says_that_it_is_none_and_takes_what_is_no_table_for_a_failure) {
  const std::string sql = dir.path("f.sql");
  unsigned long rows = 7;
  EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_FAILED);
  EXPECT_EQ(db.exec_file(sql, true) + db.rollback_transaction(), 2 * CR_STATUS_NOT_FOUND);
  EXPECT_FALSE(db.run_pragma("PRAGMA page_size", "4096", nullptr) || db.in_transaction());
  for (int i = 0; i < 4; ++i) log.expect_error(CR_STATUS_NOT_FOUND, file + " is not opened.");
  open_with_rows();
  EXPECT_EQ(db.init_db() + db.open_db() + db.checkopen(), CR_STATUS_OK) << "open already";
  EXPECT_EQ(db.exec_file(sql, true), CR_STATUS_OK) << "nothing to run";
  std::ofstream(sql) << "INSERT INTO t VALUES (3, NULL);";
  EXPECT_EQ(db.exec_file(sql, true), CR_STATUS_OK);
  EXPECT_EQ(db.exec_file(dir.path(), true), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the content of " + dir.path());
  EXPECT_EQ(db.count_in_table("gone", &rows), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "count_in_table: faile to exec (SELECT COUNT(*) FROM gone;) ");
  EXPECT_EQ(rows, 7U);
  std::string told;
  EXPECT_TRUE(db.run_pragma("SELECT b FROM t WHERE a = 3", "", nullptr)) << "NULL";
  EXPECT_FALSE(db.run_pragma("SELECT a FROM t", "4", &told) || db.run_pragma("bad", "", nullptr));
  EXPECT_EQ(told, "123");
}

TEST_F(Connection, is_made_for_a_missing_or_an_empty_file_only) {
  fs::create_symlink(file, file);  // a loop, which cannot be examined
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_EQ(db.init_db(), CR_STATUS_FAILED);
  EXPECT_TRUE(fs::remove(file));
  EXPECT_EQ(db.checkopen(), CR_STATUS_NOT_FOUND);
  std::ofstream(file) << "x";
  EXPECT_EQ(db.init_db(), CR_STATUS_EXISTS);
  EXPECT_EQ(TestDb(file + "/a.db").init_db(), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Could not create directory " + file);
  fs::resize_file(file, 0);
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_FALSE(db.has_handle());
  EXPECT_EQ(db.init_db(), CR_STATUS_OK);
  EXPECT_TRUE(db.is_open());
  EXPECT_EQ(asked_timeout, 10000);
  EXPECT_EQ(TestDb(dir.path("x/y/a.db")).init_db(), CR_STATUS_OK);
  EXPECT_EQ(fs::status(dir.path("x/y")).permissions(), fs::perms::owner_all);
}

TEST_F(Connection, leaves_no_file_without_its_schema_and_is_half_open_when_that_throws) {
  db.schema = [] { return CR_STATUS_IO_ERROR; };
  EXPECT_EQ(db.init_db(), CR_STATUS_IO_ERROR);
  EXPECT_FALSE(db.has_handle() || fs::exists(file));
  db.schema = []() -> cr_status_t { throw std::bad_alloc(); };
  EXPECT_THROW(db.init_db(), std::bad_alloc);
  EXPECT_FALSE(fs::exists(file));
  db.schema = [&] { return db.on_db_error(SQLITE_CORRUPT); };
  EXPECT_THROW(db.init_db(), db_exception);
  EXPECT_TRUE(db.has_handle() && !db.is_open() && fs::exists(file));
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_EQ(db.open_db(dir.path()), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to open database " + dir.path());
  EXPECT_FALSE(db.has_handle());
}

TEST_F(Connection, waits_for_its_statements_when_closing_and_is_abandoned_in_the_end) {
  for (const unsigned int done_after : {2U, 4U, 9U}) {
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    sqlite3* const handle = db.db;
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(handle, "SELECT 1", -1, &statement, nullptr);
    unsigned int slept = 0;
    refhost::set_log_level(refhost::LogLevel::Trace);
    const FakeSleep counted([&](unsigned int) {
      if (++slept == done_after) sqlite3_finalize(statement);
    });
    EXPECT_EQ(db.close_db(3), CR_STATUS_OK);
    EXPECT_FALSE(db.has_handle() || db.is_open());
    EXPECT_EQ(counted.sleeps(), std::vector(std::min(done_after, 4U), 1U));
    if (done_after > slept) sqlite3_finalize(statement);
    if (slept == 4) sqlite3_close(handle);  // abandoned
  }
}

TEST_F(Connection, hands_over_rows_when_asked_and_lets_their_exceptions_out) {
  open_with_rows();
  EXPECT_EQ(db.exec("SELECT a FROM t", &db), CR_STATUS_FAILED) << "nobody takes the rows";
  log.clear();
  const std::string sql = "bad " + std::string(1020, 'x');
  EXPECT_EQ(db.exec(sql, nullptr) + db.exec(sql + "x", nullptr), 2 * CR_STATUS_FAILED);
  for (const std::string& shown : {sql, sql.substr(0, 1020) + "...."}) {
    log.expect_error(
        4, file + ": failed to execute [[[\"" + shown + "\"]]] (1:near \"bad\": syntax error)");
  }
  std::string seen;
  db.row = [&](const char* value) { return seen += value, 0; };
  EXPECT_EQ(db.exec("SELECT a FROM t", nullptr), CR_STATUS_OK);
  EXPECT_EQ(db.exec("SELECT a FROM t; DELETE FROM t WHERE a > 1", &seen), CR_STATUS_OK);
  EXPECT_EQ(seen, "12");
  EXPECT_EQ(db.get_changes(), 1);
  db.row = [](const char*) -> int { throw 7; };
  EXPECT_THROW(db.exec("SELECT a FROM t", &db), int);
  EXPECT_EQ(db.exec("DELETE FROM t", nullptr), CR_STATUS_OK);
  EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
  EXPECT_TRUE(sleep.sleeps().empty()) << "a statement was left over";
}

TEST_F(Connection, waits_for_writers_and_is_durable_and_limited_each_time_it_is_opened) {
  open_with_rows();
  TestDb other(file);
  EXPECT_EQ(other.open_db() + other.exec("BEGIN EXCLUSIVE", nullptr), CR_STATUS_OK);
  EXPECT_EQ(db.close_db(0) + db.open_db(), CR_STATUS_OK);
  EXPECT_EQ(db.exec("DELETE FROM t", nullptr), CR_STATUS_BUSY);
  log.clear();
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  EXPECT_TRUE(log.messages(refhost::LogLevel::Error).empty());
  const FakeSleep meanwhile([&](unsigned int) { other.close_db(0); });
  EXPECT_EQ(db.begin_transaction() + db.rollback_transaction(), CR_STATUS_OK);
  EXPECT_EQ(meanwhile.sleeps().size(), 1U);
  EXPECT_EQ(db.exec("SELECT 1; DELETE FROM t", nullptr), CR_STATUS_OK);
  EXPECT_TRUE(db.run_pragma("PRAGMA synchronous", "3", nullptr));
  EXPECT_EQ(db.begin_transaction() + db.open_db(), CR_STATUS_OK);
  EXPECT_TRUE(db.in_transaction()) << "open already";
  EXPECT_EQ(db.open_db(dir.path("d.db")) + other.open_db() + other.begin_transaction(), 0);
  EXPECT_EQ(other.drop_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Drop database " + file + ".");
  TestDb limited(dir.path("b.db"), 1000);
  EXPECT_EQ(limited.open_db() + limited.exec("SELECT zeroblob(999)", nullptr), CR_STATUS_OK);
  EXPECT_EQ(limited.exec("SELECT zeroblob(1001)", nullptr), CR_STATUS_FAILED);
  log.clear();
}

TEST_F(Connection, checks_its_integrity_and_throws_corruption_which_transactions_return) {
  open_with_rows();
  std::string told;
  EXPECT_TRUE(db.run_integrity_check(told) && told == "ok") << told;
  std::fstream(file).seekp(4096) << std::string(4096, 'x');
  ASSERT_EQ(db.open_db(file), CR_STATUS_OK);
  EXPECT_FALSE(db.run_integrity_check(told));
  fs::rename(file, dir.path("elsewhere"));
  EXPECT_THROW(db.exec("DELETE FROM t", nullptr), db_exception) << "moved away";
  log.clear();
  std::ofstream(file) << std::string(4096, 'x');
  ASSERT_EQ(db.open_db(file), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_CORRUPT);
  log.expect_error(CR_STATUS_CORRUPT,
                   "begin_transaction: Catch sqlite database runtime exception "
                   "[26]: file is not a database");
  log.clear();
}

}  // namespace
