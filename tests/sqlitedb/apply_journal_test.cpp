#include <gtest/gtest.h>

#include <boost/algorithm/string/predicate.hpp>
#include <fstream>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

struct Db : sqlitedb::SQLiteApplyJournal {
  Db() : SQLiteApplyJournal(":memory:") {
    open_db();
    exec("CREATE TABLE t (id INTEGER PRIMARY KEY, text); INSERT INTO t VALUES (0, 0)", nullptr);
  }
  int on_db_callback(void* out, int, char** values, char**) override {
    *static_cast<std::string*>(out) += values[0];
    return 0;
  }
  std::string ids() {
    std::string found;
    return exec("SELECT id FROM t ORDER BY id", &found), found;
  }
  cr_status_t replay(std::string content, bool whole_first) {
    return exec_file_content("j", content, whole_first);
  }
};

TEST(ApplyJournal, RestoresInOneBatchOrLineByLine) {
  constexpr bool kBatch = true, kLines = false;
  const struct {
    const char* journal;
    bool whole_first;
    cr_status_t status;
    const char* ids;
  } cases[] = {
      {"DELETE FROM t;\nINSERT INTO t VALUES (1, 2);", kBatch, 0, "1"},
      {"DELETE FROM t;\nINSERTED;\nREPLACE INTO t VALUES (1, 2);", kBatch, CR_STATUS_BAD_ARG, "1"},
      {"\nINSERT INTO t VALUES (1, 2);\n\ndElEtE FROM t;\nDrop TABLE t;\nEND;\n(;;;;\n"
       "DELETED\nINSERT INTO t VALUES (2, 2);\nINSERT INTO t VALUES (3, 2)",
       kLines, 0, "012"},
      {"INSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (3, 2);",
       kLines, CR_STATUS_FAILED, "01"},
      {"SELECT 1 FROM missing;\n", kBatch, CR_STATUS_FAILED, "0"},
      {"INSERT INTO t VALUES (1, 2)", kLines, CR_STATUS_BAD_ARG, "0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.journal);
    LogCapture log;
    Db db;
    EXPECT_EQ(db.replay(c.journal, c.whole_first), c.status);
    EXPECT_EQ(db.ids(), c.ids);
    log.clear();
  }
}

TEST(ApplyJournal, CutAtAnyByteKeepsItsWholeLinesAndTellsOfAFailedOne) {
  using boost::algorithm::ends_with;
  const std::string line = "REPLACE INTO t VALUES (1, 'drop;''');\n";
  const std::string journal = line + "REPLACE INTO t VALUES (2, '\"');\n";
  for (std::size_t cut = 0; cut <= journal.size(); ++cut) {
    for (const bool whole_first : {false, true}) {
      SCOPED_TRACE(std::to_string(cut) + (whole_first ? " in a batch" : " by line"));
      LogCapture log;
      Db db;
      const std::string text = journal.substr(0, cut);
      const cr_status_t status = db.replay(text, whole_first);
      const bool failed = !log.messages(refhost::LogLevel::Error).empty();
      // By line what follows the last ";" does not count; that ";" may be one within a text.
      const std::string lines = text.substr(0, text.rfind(';') + 1);
      cr_status_t expected = ends_with(lines, ");") ? CR_STATUS_OK
                             : lines.empty()        ? CR_STATUS_BAD_ARG
                                                    : CR_STATUS_FAILED;
      // A batch takes a statement that lacks nothing but its end. One that lacks more fails, unless
      // it is a syntax error: that leads to the lines.
      if (whole_first && (text.empty() || ends_with(text, ")"))) expected = CR_STATUS_OK;
      EXPECT_EQ(status, whole_first && failed ? CR_STATUS_FAILED : expected);
      const std::size_t end = cut + (whole_first ? 2 : 1);
      EXPECT_EQ(db.ids(), end >= journal.size() ? "012" : end >= line.size() ? "01" : "0");
      std::string damage;
      EXPECT_TRUE(db.run_integrity_check(damage) && !db.in_transaction()) << damage;
      log.clear();
    }
  }
}

TEST(ApplyJournal, TellsWhatItCouldNotReadOrRun) {
  const TempDir dir;
  const std::string file = dir.path("j");
  LogCapture log(refhost::LogLevel::Trace);
  Db db;
  EXPECT_EQ(db.exec_file(file, true), CR_STATUS_OK) << "nothing to restore";
  EXPECT_EQ(db.exec_file(dir.path(), true), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the contents of " + dir.path());
  std::ofstream(file) << "INSERTED;\nINSERT INTO t VALUES (7, 7);";
  EXPECT_EQ(db.exec_file(file, false), CR_STATUS_BAD_ARG);
  log.expect_info(CR_STATUS_BAD_ARG,
                  "Could not execute the SQL statement INSERTED; in the journal file " + file);
  log.expect_info(CR_STATUS_NONE,
                  "[SQL SYNTAX ERROR]: [[[\"INSERTED;\"]]] near \"INSERTED\": syntax error");
  EXPECT_EQ(db.ids(), "07");
  std::ofstream(file) << "nothing";
  EXPECT_EQ(db.exec_file(file, false), CR_STATUS_BAD_ARG);
  log.expect_info(CR_STATUS_BAD_ARG,
                  "Failed to find a ';' character in the the contents of " + file);
  std::ofstream(file) << "SELECT missing;";
  EXPECT_EQ(db.exec_file(file, false), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to execute the contents of " + file);
  log.clear();
}

TEST(ApplyJournal, HandsOnDamageAndStaysConfinedNoLongerThanTheReplay) {
  const TempDir dir;
  std::ofstream(dir.path("j.db")) << std::string(4096, 'x');
  LogCapture log;
  sqlitedb::SQLiteApplyJournal db(dir.path("j.db"));
  std::string journal = "SELECT * FROM t;";
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_THROW(db.exec_file_content("j", journal, true), sqlitedb::db_exception);
  log.clear();
  EXPECT_EQ(db.exec("PRAGMA foreign_keys = 1;", nullptr), CR_STATUS_OK);
}

// The replay may be the connection's first use, which also makes its commits outlive power
// failures.
TEST(ApplyJournal, StaysWithinItsDatabaseAndLessensNoDurabilityDuringAReplayOnly) {
  const TempDir dir;
  const std::string outside = "'" + dir.path("outside.db") + "'";
  const std::pair<std::string, bool> cases[] = {
      {"CREATE TABLE t (a); INSERT INTO t VALUES (abs(-1));", true},
      {"PRAGMA synchronous=EXTRA;", true},
      {"PRAGMA synchronous=OFF;", false},
      {"PRAGMA synchronous;", false},
      {"PRAGMA journal_mode=EXTRA;", false},
      {"PRAGMA writable_schema = 1;", false},
      {"DETACH main;", false},
      {"ATTACH " + outside + " AS other;", false},
      {"VACUUM INTO " + outside + ";", false},
      {"SELECT LOAD_EXTENSION(" + outside + ");", false}};
  for (auto [journal, allowed] : cases) {
    SCOPED_TRACE(journal);
    LogCapture log;
    sqlitedb::SQLiteApplyJournal db(":memory:");
    EXPECT_EQ(db.open_db(), CR_STATUS_OK);
    EXPECT_EQ(db.exec_file_content("j", journal, true), allowed ? CR_STATUS_OK : CR_STATUS_FAILED);
    const auto told = log.messages(refhost::LogLevel::Error);
    EXPECT_TRUE(allowed || told.at(0).find("author") != std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
    EXPECT_TRUE(!allowed || db.run_pragma("PRAGMA synchronous", "3", nullptr));
    EXPECT_EQ(db.exec("ATTACH ':memory:' AS other; PRAGMA user_version = 3", nullptr), 0);
    log.clear();
  }
}

}  // namespace
