#include "uldb/sqlite_uldb.h"

#include <sqlite3.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <optional>
#include <set>

#include "sqlite_uldb_hooks.h"
#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Lines = std::set<std::string>;

// The list that docs/uldb.md shows.
const std::string kStored =
    "020000000200000064000000000000000700000000010000001000000000000000000000020000008300F30E";

struct TestDb : SQLiteULDB {
  using SQLiteULDB::SQLiteULDB;
  bool db_corrupted(int rc) override {
    EXPECT_TRUE(db == nullptr || sqlite3_next_stmt(db, nullptr) == nullptr) << "not finalized";
    return SQLiteULDB::db_corrupted(rc);
  }
  cr_status_t recover() override { return mend ? mend() : SQLiteULDB::recover(); }
  std::function<cr_status_t()> mend;
};

std::string seen;
cr_status_t see(const char* poid, UDCIDRecord*) { return seen += poid, seen == "ab" ? 5 : 0; }
cr_status_t fail(const char*, UDCIDRecord*) { throw std::bad_alloc(); }

cr_status_t put(SQLiteULDB& to, const char* poid) {
  std::uint64_t list[] = {100, (1ULL << 40) + 7, 4096, 1ULL << 33};
  UDCIDRecord record(2, reinterpret_cast<unsigned char*>(list));
  return to.put(poid, &record, nullptr);
}

// 0 when there is a record, otherwise what the status cell says.
cr_status_t get(SQLiteULDB& from, const char* poid) {
  const std::unique_ptr<UDCIDRecord> found(from.get(poid));
  EXPECT_EQ(found == nullptr, *__cr_errno_location() != CR_STATUS_OK);
  return *__cr_errno_location();
}

// The number of rows; 99 when it cannot be told.
unsigned long rows(SQLiteULDB& of) {
  unsigned long n = 99;
  return of.count(&n), n;
}

std::string replaced(std::string text, const std::string& from, const std::string& to) {
  const auto at = text.find(from);
  return at == std::string::npos ? text : text.replace(at, from.size(), to);
}

class Uldb : public testing::Test {
 protected:
  Uldb() { hooks = {}, seen.clear(); }

  // The error lines so far, with F for the file.
  std::vector<std::string> errors() {
    auto lines = log.messages(refhost::LogLevel::Error);
    for (std::string& line : lines) line = replaced(line, file, "F");
    log.clear();
    return lines;
  }
  void sql(const std::string& text) { raw_sql(file, text); }
  void reopen(const std::function<void()>& meanwhile) {
    db.reset(), meanwhile(), db.emplace(dir, 0U);
  }

  const TempDir root;
  const std::string dir = root.path("5/it's");
  const std::string file = dir + "/ul.db";
  LogCapture log;
  const FakeSleep sleep;
  std::optional<TestDb> db{std::in_place, dir, 0U};
};

TEST_F(Uldb, stores_lists_in_the_form_that_is_documented) {
  EXPECT_EQ(db->get_one("a", nullptr) + db->get_all(nullptr), 2 * CR_STATUS_BAD_ARG);
  EXPECT_FALSE(fs::exists(dir));
  EXPECT_EQ(put(*db, "it's"), CR_STATUS_OK);
  EXPECT_EQ(hooks.busy_timeout, 10000);
  log.expect_info(CR_STATUS_NOT_FOUND, "ULDB " + file + " doesn't exist.");
  log.expect_info(CR_STATUS_OK, "created UDCID List database " + file);
  EXPECT_EQ(raw_sql(file, "SELECT sql, poid, hex(udcids) FROM utable JOIN sqlite_master LIMIT 1"),
            (RawRows{{"CREATE TABLE utable (    poid TEXT PRIMARY KEY,    udcids BLOB)", "it's",
                      kStored}}));
  sql("UPDATE utable SET poid = 'old', udcids = x'010000000200000064000000C800000030017806'");
  const std::unique_ptr<UDCIDRecord> old(db->get("old"));
  for (const char* poid : {"c", "b", "a"}) EXPECT_EQ(db->put(poid, old.get(), nullptr), 0);
  EXPECT_EQ(raw_sql(file, "SELECT hex(udcids) FROM utable WHERE poid = 'a'")[0][0].substr(0, 40),
            "02000000020000006400000000000000C8000000");
  EXPECT_EQ(db->del("old") + db->del("old"), CR_STATUS_OK);
  EXPECT_EQ(db->get_one("old", see), CR_STATUS_NOT_FOUND);
  log.expect_info(CR_STATUS_NOT_FOUND, "DB[" + file + "] don't have record with POID = old");
  EXPECT_EQ(db->get_all(see), 5) << "the second callback's answer, " << seen;
  EXPECT_EQ(rows(*db), 3U);
}

TEST_F(Uldb, refuses_what_it_cannot_store_and_bears_callbacks_that_throw) {
  UDCIDRecord huge(~0U, nullptr);
  UDCIDRecord bare(1, nullptr);
  EXPECT_EQ(db->put("a", &huge, nullptr), CR_STATUS_NO_MEMORY);
  EXPECT_EQ(db->put("a", &bare, nullptr) + db->put("a", nullptr, nullptr), 2 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(put(*db, nullptr) + db->del(nullptr) + get(*db, nullptr), 3 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
  EXPECT_EQ(db->get_all(fail), CR_STATUS_NO_MEMORY);
  EXPECT_EQ(db->get_one("a", fail), CR_STATUS_NO_MEMORY);
  log.expect_error(22, "put_imp: malloc 4294967295 memory for serialize buffer failed!");
  log.expect_error(9, "put_imp: Serialize udcid list for POID a failed.");
  log.clear();
}

TEST_F(Uldb, loses_a_damaged_list_that_is_asked_for_and_a_damaged_file_and_nothing_else) {
  const auto update = [this](const std::string& what) {
    return [=] { sql("UPDATE utable SET " + what + " WHERE poid = 'b'"); };
  };
  const struct {
    std::function<void()> harm;
    cr_status_t get_all;
    cr_status_t get;  // of b
    unsigned long left;
  } cases[] = {{update("udcids = x'0200000000000000030018FF'"), 32, 32, 1},
               {update("udcids = 'text'"), 32, 32, 1},
               {update("udcids = NULL"), 32, 9, 2},
               {update("poid = x'62'"), 32, 2, 2},
               {update("poid = 'b' || char(0)"), 32, 2, 2},
               {update("poid = NULL"), 0, 2, 2},  // it comes first, and the last row decides
               {[&] { fs::resize_file(file, 4096); }, 67, 67, 0},
               {[&] { std::ofstream(file) << std::string(99, 'x'); }, 67, 67, 0},
               {[&] { std::fstream(file).seekp(8192) << '\xff'; }, 67, 67, 0},
               {[&] { fs::remove(file); }, 0, 2, 0},
               {[&] { fs::resize_file(file, 0); }, 4, 4, 99},
               {[&] { fs::remove(file), fs::create_directory(file); }, 4, 4, 99}};
  Lines told;
  for (const auto& damage : cases) {
    SCOPED_TRACE(&damage - cases);
    EXPECT_EQ(put(*db, "a") + put(*db, "b"), CR_STATUS_OK);
    reopen(damage.harm), seen.clear();
    EXPECT_EQ(db->get_all(see), damage.get_all);
    EXPECT_EQ(seen, damage.left == 1 || damage.left == 2 ? "a" : "");
    EXPECT_EQ(get(*db, "b"), damage.get);
    EXPECT_EQ(rows(*db), damage.left);
    for (const std::string& line : errors()) told.insert(line);
    reopen([&] { fs::remove(file); });
  }
  const Lines expected = {
      "UDCID list data of POID (null) is corrupt.",
      "UDCID list data of POID b is corrupt.",
      "count: faile to exec (SELECT COUNT(*) FROM utable;) ",
      "get_all_imp: Deserialize UDCID list record failed for POID b !",
      "get_all_imp: UDCID list data of POID b is corrupt.",
      "get_imp: Deserialize UDCID List record failed for POID b !",
      "get_imp: UDCID List data of POID b corrupt,remove this record from database F."};
  EXPECT_TRUE(std::includes(told.begin(), told.end(), expected.begin(), expected.end()));
}

TEST_F(Uldb, fails_to_commit_what_vanished_in_mid_transaction) {
  EXPECT_EQ(db->begin_transaction() + put(*db, "a"), CR_STATUS_OK);
  hooks.before_step = [this] { fs::remove(file); };
  EXPECT_EQ(get(*db, "b"), CR_STATUS_NOT_FOUND);
  log.expect_error(2, "get_imp: ULDB " + file + " doesn't exist, close handle of it.");
  hooks.before_step = nullptr;
  EXPECT_EQ(put(*db, "b"), CR_STATUS_OK);
  EXPECT_EQ(db->commit_transaction(), CR_STATUS_FAILED);
  EXPECT_EQ(db->rollback_transaction(), CR_STATUS_FAILED);
  log.expect_info(4, "commit_transaction: DB[" + file + "] commit transaction (operation failed).");
  EXPECT_EQ(db->begin_transaction() + put(*db, "c") + db->commit_transaction(), CR_STATUS_OK);
  EXPECT_EQ(rows(*db), 2U);
  hooks.before_step = [this] { fs::remove(file); };
  EXPECT_EQ(put(*db, "d"), CR_STATUS_FAILED);
  log.expect_error(-1, "db_corrupted: UDCID List database " + file + " is missing.");
  log.clear();
}

TEST_F(Uldb, brackets_rows_and_waits_for_others_to_finish) {
  EXPECT_EQ(db->rollback_transaction(), CR_STATUS_OK);
  log.expect_info(0, "rollback_transaction: DB[" + file +
                         "] transaction is not active, skipped rollback operation.");
  EXPECT_EQ(db->begin_transaction() + put(*db, "a") + db->db_close(), CR_STATUS_OK);
  EXPECT_EQ(put(*db, "b") + db->rollback_transaction(), CR_STATUS_OK) << "in a new transaction";
  EXPECT_EQ(rows(*db), 0U);
  EXPECT_EQ(db->begin_transaction() + put(*db, "a"), CR_STATUS_OK);
  TestDb other(dir, 0);
  EXPECT_EQ(other.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_TRUE(sleep.sleeps().empty() && !other.is_transaction_active());
  sqlite3* reader = nullptr;
  sqlite3_open_v2(file.c_str(), &reader, SQLITE_OPEN_READWRITE, nullptr);
  sqlite3_exec(reader, "BEGIN; SELECT * FROM utable", nullptr, nullptr, nullptr);
  EXPECT_EQ(db->commit_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  sqlite3_close(reader), log.clear();
  EXPECT_TRUE(db->is_transaction_active());
  EXPECT_EQ(db->commit_transaction(), CR_STATUS_OK);
  EXPECT_FALSE(db->is_transaction_active());
  EXPECT_EQ(rows(other), 1U);
}

TEST_F(Uldb, tries_once_more_after_a_recovery) {
  EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
  fs::copy_file(file, root.path("backup"));
  db->mend = [&] { return fs::copy_file(root.path("backup"), file) ? 0 : 4; };
  hooks = {"sqlite3_step", SQLITE_CORRUPT, 1, nullptr, 0};
  EXPECT_EQ(get(*db, "a"), CR_STATUS_OK);
  int promises = 0;
  db->mend = [&] { return ++promises, CR_STATUS_OK; };
  db->db_close(), fs::remove(file), fs::create_directory(file);
  EXPECT_EQ(get(*db, "a") + promises, CR_STATUS_FAILED + 1);
  log.expect_error(CR_STATUS_FAILED, "Failed to open database " + file);
  log.clear();
}

// Every call that can fail, of every operation, with every kind of failure.
TEST_F(Uldb, tells_every_failure_and_loses_rows_only_when_the_file_is_damaged) {
  using Operation = cr_status_t (*)(SQLiteULDB&);
  const Operation walk = [](SQLiteULDB& it) { return it.get_all(see); };
  const Operation commit = [](SQLiteULDB& it) { return it.commit_transaction(); };
  const Operation rollback = [](SQLiteULDB& it) { return it.rollback_transaction(); };
  const Operation begin = [](SQLiteULDB& it) { return it.begin_transaction(); };
  const Operation remove = [](SQLiteULDB& it) { return it.del("a"); };
  const Operation read = [](SQLiteULDB& it) { return get(it, "a"); };
  const Operation write = [](SQLiteULDB& it) { return put(it, "a"); };
  EXPECT_EQ(put(*db, "a") + put(*db, "c"), CR_STATUS_OK);
  fs::copy_file(file, root.path("model"));
  Lines told;
  const auto fails = [&](Operation run, const std::string& call, int code, int position) {
    hooks = {};
    reopen([&] { fs::copy_file(root.path("model"), file, fs::copy_options::overwrite_existing); });
    run == commit || run == rollback ? db->begin_transaction() : db->db_close();
    hooks = {"sqlite3_" + call, code, position, nullptr, 0};
    const cr_status_t status = run(*db);
    if (hooks.countdown > 0) return false;
    const bool judged = call == "open" || (run != walk && call.find("bind") != 0);
    const bool lost = judged && code != SQLITE_IOERR;
    EXPECT_EQ(status, sqlitedb::db_exception::dberr_to_crstatus(code));
    EXPECT_EQ(fs::exists(file), !lost);
    told.insert(replaced(errors().at(0), sqlite3_errstr(code), "E"));
    EXPECT_EQ(put(*db, "d"), CR_STATUS_OK);
    EXPECT_EQ(rows(*db), lost ? 1U : 3U);
    return true;
  };
  for (const Operation run : {walk, commit, rollback, begin, remove, read, write}) {
    for (const char* call : {"open", "exec", "prepare_v2", "bind_text", "bind_blob", "step"}) {
      for (const int code : {SQLITE_CORRUPT, SQLITE_FORMAT, SQLITE_NOTADB, SQLITE_IOERR}) {
        SCOPED_TRACE(call + std::to_string(code));
        for (int position = 1; fails(run, call, code, position);) ++position;
      }
    }
  }
  const std::string get_imp = "get_imp: DB[F] failed to ";
  const std::string put_imp = "put_imp: DB[F] failed to ";
  const std::string del_imp = "del_imp: DB[F] failed to ";
  const std::string all_imp = "get_all_imp: DB[F] failed to ";
  const std::string exec_imp = "db_exec_imp: F: failed to execute \"";
  EXPECT_EQ(told, (Lines{"db_open_imp: failed to open database F (E).",
                         get_imp + "prepare SQL[SELECT udcids FROM utable WHERE poid = ?] (E).",
                         get_imp + "bind poid [a] (E).",
                         get_imp + "step [SELECT udcids FROM utable WHERE poid = ?] (E).",
                         put_imp + "prepare [INSERT OR REPLACE INTO utable VALUES( ?, ? )] (E).",
                         put_imp + "bind poid [a] (E).", put_imp + "bind blob (E).",
                         put_imp + "step SQL [INSERT OR REPLACE INTO utable VALUES( ?, ? )] (E).",
                         del_imp + "prepare [DELETE FROM utable WHERE poid = ?] (E).",
                         del_imp + "bind poid [a] (E).",
                         del_imp + "step SQL [DELETE FROM utable WHERE poid = ?] (E).",
                         all_imp + "prepare SQL[SELECT * FROM utable ORDER BY poid ASC ] (E).",
                         all_imp + "step [SELECT * FROM utable ORDER BY poid ASC ] (E).",
                         exec_imp + "BEGIN IMMEDIATE TRANSACTION\", (null)",
                         exec_imp + "COMMIT TRANSACTION\", (null)",
                         exec_imp + "ROLLBACK TRANSACTION\", (null)"}));
}

}  // namespace
