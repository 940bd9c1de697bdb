#include <gtest/gtest.h>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

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
  LogCapture log{refhost::LogLevel::Trace};
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
      {"SELECT 1 FROM missing;", true, CR_STATUS_FAILED, "0", "Exec sql statement [[[SELECT 1 F"},
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
