#include <gtest/gtest.h>
#include <sqlite3.h>

#include <fstream>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/log_capture.h"
#include "tests/support/temp_dir.h"

namespace {

struct Db : sqlitedb::SQLiteApplyJournal {
  Db() : SQLiteApplyJournal(":memory:") {
    open_db();
    exec("CREATE TABLE t (id INTEGER PRIMARY KEY, text); INSERT INTO t VALUES (0, 'kept')",
         nullptr);
  }
  int on_db_callback(void* out, int, char** values, char**) override {
    *static_cast<std::string*>(out) += values[0];
    return 0;
  }
  std::string ids() {
    std::string found;
    exec("SELECT id FROM t ORDER BY id", &found);
    return found;
  }
  cr_status_t replay(std::string content, bool whole_first) {
    return exec_file_content("j", content, whole_first);
  }
};

bool met_syntax_error(const LogCapture& log) {
  const auto infos = log.messages(refhost::LogLevel::Info);
  return std::any_of(infos.begin(), infos.end(), [](const std::string& line) {
    return line.rfind("[SQL SYNTAX ERROR]", 0) == 0;
  });
}

TEST(ApplyJournal, RestoresInOneBatchOrLineByLine) {
  constexpr bool kBatch = true, kLines = false;
  const struct {
    const char* journal;
    bool whole_first;
    cr_status_t status;
    const char* ids;
    const char* info;   // the last such line, unless empty
    const char* error;  // unless empty
  } cases[] = {
      {"DELETE FROM t;\nINSERT INTO t VALUES (1, 2);", kBatch, 0, "1", "", ""},
      {"DELETE FROM t;\nINSERTED;\nREPLACE INTO t VALUES (1, 2);\n", kBatch, CR_STATUS_BAD_ARG, "1",
       "Could not execute the SQL statement INSERTED; in the journal file j", ""},
      {"\n\nINSERT INTO t VALUES (1, 2);\n\n\ndElEtE FROM t;\nDrop TABLE "
       "t;\ndropped;\nEND;\n(;;;;\n"
       "DELETED\nINSERT INTO t VALUES (2, 2);\nINSERT INTO t VALUES (3, 2)",
       kLines, 0, "012", "", ""},
      {"INSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (1, 2);\nINSERT INTO t VALUES (3, 2);",
       kLines, CR_STATUS_FAILED, "01", "[DBERR 00000613]: constraint failed",
       "Failed to execute the contents of j"},
      {"SELECT 1 FROM missing;\n", kBatch, CR_STATUS_FAILED, "0",
       "[DBERR 00000001]: SQL logic error", ""},
      {"INSERT INTO t VALUES (1, 2)", kLines, CR_STATUS_BAD_ARG, "0",
       "Failed to find a ';' character in the the contents of j", ""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.journal);
    LogCapture log;
    Db db;
    log.clear();
    EXPECT_EQ(db.replay(c.journal, c.whole_first), c.status);
    EXPECT_EQ(db.ids(), c.ids);
    const auto infos = log.messages(refhost::LogLevel::Info);
    EXPECT_EQ(infos.empty() ? "" : infos.back(), c.info);
    if (*c.error != '\0') log.expect_error(c.status, c.error);
    log.clear();
  }
}

TEST(ApplyJournal, StaysWithinItsDatabaseDuringAReplayOnly) {
  const TempDir dir;
  const std::string outside = "'" + dir.path("outside.db") + "'";
  for (const bool whole_first : {true, false}) {
    for (const std::string& sql :
         {"ATTACH " + outside + " AS other;", std::string("DETACH other;"),
          "VACUUM INTO " + outside + ";", std::string("PRAGMA writable_schema = 1;"),
          std::string("SELECT * FROM pragma_user_version;"),
          "SELECT LOAD_EXTENSION(" + outside + ");"}) {
      SCOPED_TRACE(sql);
      LogCapture log;
      Db db;
      EXPECT_EQ(db.replay(sql, whole_first), CR_STATUS_FAILED);
      EXPECT_NE(log.messages(refhost::LogLevel::Error).at(0).find("author"), std::string::npos);
      EXPECT_TRUE(std::filesystem::is_empty(dir.path()));
      EXPECT_EQ(db.exec("ATTACH ':memory:' AS other; PRAGMA user_version = 3", nullptr), 0);
      log.clear();
    }
  }
}

TEST(ApplyJournal, CutAtAnyByteKeepsWholeLinesAndTellsOfABrokenOne) {
  const std::string lines[] = {"REPLACE INTO t VALUES (1, 'a;b');",
                               "REPLACE INTO t VALUES (2, '''');",
                               "REPLACE INTO t VALUES (3, 'drop;;');"};
  const std::string journal = lines[0] + "\n" + lines[1] + "\n" + lines[2] + "\n";
  for (std::size_t cut = 0; cut <= journal.size(); ++cut) {
    for (const bool whole_first : {false, true}) {
      SCOPED_TRACE(journal.substr(0, cut) + (whole_first ? " as a batch" : " by lines"));
      LogCapture log;
      Db db;
      const cr_status_t status = db.replay(journal.substr(0, cut), whole_first);
      std::string ids = "0";
      std::size_t start = 0;  // of the first line that is not applied
      for (const std::string& line : lines) {
        // A batch takes a statement that lacks nothing but its end.
        if (cut + (whole_first ? 1 : 0) < start + line.size()) break;
        ids += std::to_string(ids.size());
        start += line.size() + 1;
      }
      const std::string tail = start < cut ? journal.substr(start, cut - start) : "";
      // What is cut before any ';' is no line; a batch tells of it, unless it sends the journal
      // through the lines.
      const bool by_lines = !whole_first || met_syntax_error(log);
      const bool fails =
          by_lines ? start == 0 || tail.find(';') != std::string::npos : !tail.empty();
      EXPECT_EQ(status != CR_STATUS_OK, fails);
      EXPECT_EQ(db.ids(), ids);
      std::string problems;
      EXPECT_TRUE(db.run_integrity_check(problems)) << problems;
      log.clear();
    }
  }
}

TEST(ApplyJournal, TellsWhichFilesItCouldNotRead) {
  const TempDir dir;
  LogCapture log;
  Db db;
  EXPECT_EQ(db.exec_file(dir.path("missing"), true), CR_STATUS_OK);
  EXPECT_EQ(db.exec_file(dir.path("missing"), false), CR_STATUS_BAD_ARG);
  EXPECT_EQ(db.exec_file(dir.path(), true), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "Failed to load the contents of " + dir.path());
  std::ofstream(dir.path("j")) << "INSERT INTO t VALUES (7, 7);";
  EXPECT_EQ(db.exec_file(dir.path("j"), false), CR_STATUS_OK);
  EXPECT_EQ(db.ids(), "07");
  db.close_db(0);
  EXPECT_EQ(db.exec_file(dir.path("j"), false), CR_STATUS_NOT_FOUND);
  log.expect_error(CR_STATUS_NOT_FOUND, ":memory: is not opened.");
}

}  // namespace
