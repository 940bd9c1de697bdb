#include "uldb/sqlite_uldb.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <boost/algorithm/string/erase.hpp>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/support/fake_sleep.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/temp_dir.h"

namespace {

// The `countdown`th call of a function of SQLite finds what `meanwhile` has done, and answers
// `code` in place of its work unless that is SQLITE_OK.
struct {
  std::string function;
  int code = SQLITE_OK, countdown = 0;
  std::function<void()> meanwhile = nullptr;
} failing;
int asked_timeout = 0;
int depth = 0;  // SQLite calls some of these itself

template <typename Function, typename... Arguments>
int hooked(const char* name, Function*, Arguments... arguments) {
  if (depth == 0 && failing.function == name && --failing.countdown == 0) {
    if (failing.meanwhile) failing.meanwhile();
    if (failing.code != SQLITE_OK) return failing.code;
  }
  ++depth;
  const int rc = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name))(arguments...);
  --depth;
  return rc;
}

}  // namespace

extern "C" {

int sqlite3_busy_timeout(sqlite3* db, int milliseconds) {
  asked_timeout = milliseconds;
  return hooked(__func__, &sqlite3_busy_timeout, db, 0);  // so that nobody really waits
}
int sqlite3_exec(sqlite3* db, const char* sql, sqlite3_callback row, void* to, char** error) {
  const int pragma = std::strncmp(sql, "PRAGMA", 6) == 0;  // opening runs some that may fail
  depth += pragma;
  const int rc = hooked(__func__, &sqlite3_exec, db, sql, row, to, error);
  return depth -= pragma, rc;
}
int sqlite3_bind_text(sqlite3_stmt* to, int at, const char* text, int n, void (*free)(void*)) {
  return hooked(__func__, &sqlite3_bind_text, to, at, text, n, free);
}
int sqlite3_bind_blob(sqlite3_stmt* to, int at, const void* bytes, int n, void (*free)(void*)) {
  return hooked(__func__, &sqlite3_bind_blob, to, at, bytes, n, free);
}
int sqlite3_step(sqlite3_stmt* statement) { return hooked(__func__, &sqlite3_step, statement); }

}  // extern "C"

namespace {

namespace fs = std::filesystem;

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

struct Uldb : testing::Test {
  Uldb() { failing = {}, seen.clear(); }

  void reopen(const std::function<void()>& meanwhile) {
    db.reset(), meanwhile(), db.emplace(dir, 0U);
  }
  // The log so far, forgotten.
  std::string said() {
    std::string text;
    for (const auto& line : log.lines()) {
      text += std::to_string(line.status) + " " + line.message + "\n";
    }
    log.clear();
    return boost::algorithm::erase_all_copy(text, dir);
  }

  const TempDir root;
  const std::string dir = root.path("5/it's");
  const std::string file = dir + "/ul.db";
  LogCapture log;
  const FakeSleep sleep;
  std::optional<TestDb> db{std::in_place, dir, 0U};
};

TEST_F(Uldb, stores_lists_in_the_form_that_is_documented) {
  EXPECT_EQ(put(*db, "it's"), CR_STATUS_OK);
  EXPECT_TRUE(TestDb(dir, 0).db_integrity_OK() && asked_timeout == 10000) << "opens what is there";
  log.expect_info(CR_STATUS_OK, "created UDCID List database " + file);
  EXPECT_EQ(raw_sql(file, "SELECT sql, poid, hex(udcids) FROM utable JOIN sqlite_master LIMIT 1"),
            (RawRows{{"CREATE TABLE utable (    poid TEXT PRIMARY KEY,    udcids BLOB)", "it's",
                      kStored}}));
  EXPECT_EQ(db->del("it's") + db->del("it's"), CR_STATUS_OK);
  EXPECT_EQ(db->get_one("it's", see), CR_STATUS_NOT_FOUND);
  for (const char* poid : {"c", "b", "a"}) EXPECT_EQ(put(*db, poid), CR_STATUS_OK);
  EXPECT_EQ(db->get_all(see), 5) << "the second callback's answer, " << seen;
}

TEST_F(Uldb, refuses_what_it_cannot_store_and_bears_callbacks_that_throw) {
  failing = {"sqlite3_exec", SQLITE_FULL, 1};
  EXPECT_EQ(put(*db, "a"), CR_STATUS_FAILED);
  EXPECT_FALSE(db->db_integrity_OK()) << "open, though it could not be created";
  fs::remove(file);
  UDCIDRecord huge(~0U, nullptr), bare(1, nullptr);
  EXPECT_EQ(db->put("a", &huge, nullptr), CR_STATUS_NO_MEMORY);
  EXPECT_EQ(db->put("a", &bare, nullptr) + db->put("a", nullptr, nullptr), 2 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(put(*db, nullptr) + db->del(nullptr) + get(*db, nullptr), 3 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
  EXPECT_EQ(db->get_all(fail), CR_STATUS_NO_MEMORY);
  EXPECT_EQ(db->get_one("a", fail), CR_STATUS_NO_MEMORY);
  log.clear();
}

TEST_F(Uldb, loses_a_damaged_list_that_is_asked_for_and_a_damaged_file_and_nothing_else) {
  const auto update = [this](const std::string& what) {
    return [=] { raw_sql(file, "UPDATE utable SET " + what + " WHERE poid = 'b'"); };
  };
  const struct {
    std::function<void()> harm;
    cr_status_t get_all;
    cr_status_t get;  // of b
    unsigned long left;
  } cases[] = {{update("udcids = x'0200000000000000030018FF'"), 32, 32, 1},
               {update("udcids = 'text'"), 32, 32, 1},
               {update("udcids = NULL"), 32, 9, 2},
               {update("poid = 'b' || char(0)"), 32, 2, 2},
               {update("poid = NULL"), 0, 2, 2},  // it comes first, and the last row decides
               {[&] { fs::resize_file(file, 4096); }, 67, 67, 0},
               {[&] { std::ofstream(file) << std::string(99, 'x'); }, 67, 67, 0},
               {[&] { std::fstream(file).seekp(8192) << '\xff'; }, 67, 67, 0},
               {[&] { fs::remove(file); }, 0, 2, 0},
               {[&] { fs::remove(file), fs::create_directory(file); }, 4, 4, 99}};
  for (const auto& damage : cases) {
    SCOPED_TRACE(&damage - cases);
    EXPECT_EQ(put(*db, "a") + put(*db, "b"), CR_STATUS_OK);
    reopen(damage.harm), seen.clear();
    EXPECT_EQ(db->get_all(see), damage.get_all);
    EXPECT_EQ(seen, damage.left == 1 || damage.left == 2 ? "a" : "");
    EXPECT_EQ(get(*db, "b"), damage.get);
    EXPECT_EQ(rows(*db), damage.left);
    reopen([&] { fs::remove(file); });
  }
  log.expect_error(32, "get_all_imp: UDCID list data of POID b is corrupt.");
  log.expect_error(
      32,
      "get_imp: UDCID List data of POID b corrupt,remove this record from database " + file + ".");
  log.clear();
}

TEST_F(Uldb, brackets_rows_and_waits_for_others_to_finish) {
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
  sqlite3_close(reader);
  EXPECT_EQ(db->commit_transaction(), CR_STATUS_OK);
  EXPECT_EQ(rows(other), 1U);
  for (const bool damaged : {false, true}) {
    EXPECT_EQ(db->begin_transaction() + put(*db, "c"), CR_STATUS_OK);
    failing = {"sqlite3_step", SQLITE_CORRUPT, damaged ? 1 : 0};
    EXPECT_EQ(damaged ? put(*db, "x") : fs::remove(file), damaged ? CR_STATUS_CORRUPT : 1);
    EXPECT_EQ(put(*db, "d"), CR_STATUS_OK);
    EXPECT_EQ(db->commit_transaction(), CR_STATUS_FAILED) << "its rows went with the file";
    EXPECT_EQ(db->rollback_transaction(), CR_STATUS_FAILED);
    EXPECT_TRUE(db->is_transaction_active() && rows(*db) == 1 && get(*db, "d") == CR_STATUS_OK);
  }
  log.clear();
}

// The file is whole and open when the harm is done: before the operation, or inside it.
TEST_F(Uldb, says_what_became_of_its_file) {
  const auto remove = [&] { fs::remove(file); };
  const auto foreign = [&] { db->db_close(), std::ofstream(file) << std::string(99, 'x'); };
  const auto find = [&] { return get(*db, "x"); };
  const auto store = [&] { return put(*db, "b"); };
  const std::string dropped = R"(-1 drop_db: Drop UDCID List database: /ul.db
16 Failed to recover database /ul.db
/ul.db is gone)";
  const std::string made = R"(2 ULDB /ul.db doesn't exist.
0 created UDCID List database /ul.db
)";
  const struct {
    std::string inside;
    std::function<void()> harm;
    std::function<cr_status_t()> operation;
    cr_status_t status;
    std::string said;
  } cases[] = {
      {"", remove, find, 2, made + "2 DB[/ul.db] don't have record with POID = x\n"},
      {"sqlite3_step", remove, find, 2,
       "2 get_imp: ULDB /ul.db doesn't exist, close handle of it.\n/ul.db is gone"},
      {"sqlite3_step", remove, store, 4,
       R"(4 put_imp: DB[/ul.db] failed to step SQL [INSERT OR REPLACE INTO utable VALUES( ?, ? )] (attempt to write a readonly database).
-1 db_corrupted: sqlite error code is 8 (attempt to write a readonly database).
-1 db_corrupted: UDCID List database /ul.db is missing.
)" + dropped},
      {"", foreign, find, 67,
       R"(67 get_imp: DB[/ul.db] failed to prepare SQL[SELECT udcids FROM utable WHERE poid = ?] (file is not a database).
-1 db_corrupted: sqlite error code is 26 (file is not a database).
-1 db_corrupted: UDCID List database /ul.db is corrupted. 
)" + dropped},
      {"", [&] { db->db_close(), fs::resize_file(file, 0); }, store, 4,
       R"(4 put_imp: DB[/ul.db] failed to prepare [INSERT OR REPLACE INTO utable VALUES( ?, ? )] (SQL logic error).
-1 db_corrupted: sqlite error code is 1 (SQL logic error).
)"},
      {"", [&] { fs::remove_all(dir), std::ofstream(dir) << "file"; }, store, 4,
       "2 ULDB /ul.db doesn't exist.\n4 Failed to create directory \n/ul.db is gone"},
      {"", [&] { db->begin_transaction(), remove(); }, [&] { return db->commit_transaction(); }, 4,
       "0 begin_transaction: DB[/ul.db] begin transaction (success).\n" + made +
           R"(4 db_exec_imp: /ul.db: failed to execute "COMMIT TRANSACTION", (cannot commit - no transaction is active)
-1 db_corrupted: sqlite error code is 1 (SQL logic error).
4 commit_transaction: DB[/ul.db] commit transaction (operation failed).
)"},
      {"", [] {}, [&] { return db->rollback_transaction(); }, 0,
       R"(0 rollback_transaction: DB[/ul.db] transaction is not active, skipped rollback operation.
)"},
  };
  for (const auto& harmed : cases) {
    SCOPED_TRACE(&harmed - cases);
    reopen([&] { fs::remove_all(dir); });
    EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
    log.clear();
    if (harmed.inside.empty()) harmed.harm();
    failing = {harmed.inside, SQLITE_OK, 1, harmed.harm};
    EXPECT_EQ(harmed.operation(), harmed.status);
    EXPECT_EQ(said() + (fs::exists(file) ? "" : "/ul.db is gone"), harmed.said);
  }
}

TEST_F(Uldb, tries_once_more_after_a_recovery) {
  EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
  fs::copy_file(file, root.path("backup"));
  db->mend = [&] { return fs::copy_file(root.path("backup"), file) ? 0 : 4; };
  failing = {"sqlite3_step", SQLITE_CORRUPT, 1};
  EXPECT_EQ(get(*db, "a"), CR_STATUS_OK);
  db->mend = [] { return 0; };
  failing = {"sqlite3_step", SQLITE_CORRUPT, 1};
  EXPECT_EQ(get(*db, "a"), CR_STATUS_CORRUPT);
  log.expect_error(2, "Failed to open database " + file);
  log.clear();
}

TEST_F(Uldb, commits_no_half_bound_row_and_drops_a_damaged_file_alone) {
  EXPECT_EQ(put(*db, "a"), CR_STATUS_OK);
  for (const std::string call : {"sqlite3_bind_text", "sqlite3_bind_blob"}) {
    for (const auto& operation : std::vector<std::function<cr_status_t()>>{
             [&] { return put(*db, "b"); }, [&] { return get(*db, "a"); },
             [&] { return db->del("a"); }}) {
      failing = {call, SQLITE_CORRUPT, 1};
      EXPECT_EQ(operation(), CR_STATUS_CORRUPT) << call;
      EXPECT_EQ(rows(*db), 1U) << call;
      if (call == "sqlite3_bind_blob") break;  // the others bind none
    }
  }
  for (int code = 0; code < 102; ++code) {
    const bool damage = code == SQLITE_CORRUPT || code == SQLITE_FORMAT || code == SQLITE_NOTADB;
    EXPECT_EQ(db->db_corrupted(code), damage) << code;
  }
  log.clear();
}

}  // namespace
