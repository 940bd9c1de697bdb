#include "uldb/sqlite_uldb.h"

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <boost/algorithm/string/erase.hpp>

#include "tests/support/fake_sleep.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

// Two entries; the same in version 1, and what becomes of that.
const std::string kHex =
    "020000000200000064000000000000000700000000010000001000000000000000000000020000008300F30E";
const std::string kOldHex = "010000000200000064000000C800000030017806";
const std::string kWidenedHex =
    "02000000020000006400000000000000C8000000000000000000000000000000000000000000000031010020";
const std::string kEmptyHex = "020000000000000003001800";

struct TestDb : SQLiteULDB {
  using SQLiteULDB::db;
  using SQLiteULDB::db_exec;
  using SQLiteULDB::SQLiteULDB;

  cr_status_t recover() override { return recovery ? recovery() : SQLiteULDB::recover(); }

  std::function<cr_status_t()> recovery;
};

std::string seen;
cr_status_t see(const char* poid, UDCIDRecord*) { return seen += poid, seen == "ab" ? 5 : 0; }

SQLiteULDB* writer;
cr_status_t store_again_and_delete_c(const char* poid, UDCIDRecord* record) {
  return seen += poid, seen.size() > 2 ? 5 : writer->put(poid, record, nullptr) + writer->del("c");
}

cr_status_t put(SQLiteULDB& to, const char* poid) {
  std::uint64_t list[] = {100, (1ULL << 40) + 7, 4096, 1ULL << 33};
  UDCIDRecord record(2, reinterpret_cast<unsigned char*>(list));
  return to.put(poid, &record, nullptr);
}

// 0 when there is a record, otherwise what the status cell says.
cr_status_t get(SQLiteULDB& from, const char* poid) {
  const std::unique_ptr<UDCIDRecord> found(from.get(poid));
  return found != nullptr ? CR_STATUS_OK : *__cr_errno_location();
}

unsigned long rows(SQLiteULDB& of) {
  unsigned long n = 0;
  return of.count(&n), n;
}

struct Uldb : testing::Test {
  // When the open connection next prepares a statement.
  void let_file_vanish() {
    const auto act = [](void* path, int, const char*, const char*, const char*, const char*) {
      return fs::remove(*static_cast<std::string*>(path)), SQLITE_OK;
    };
    sqlite3_set_authorizer(db.db, act, &file);
  }
  // The messages so far, the path of the file left out.
  std::string said() {
    std::string messages;
    for (const auto& line : log.lines()) messages += line.message + "\n";
    log.clear();
    return boost::algorithm::erase_all_copy(messages, file);
  }

  const TempDir root;
  const std::string dir = root.path("5/it's");
  std::string file = dir + "/ul.db";
  LogCapture log;
  const FakeSleep sleep;
  TestDb db{dir, 0};
};

// From memory that is neither aligned nor a byte longer.
cr_status_t read(UDCIDRecord& record, const std::string& hex) {
  std::vector<unsigned char> bytes(1);
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return record.Deserialize(bytes.data() + 1, static_cast<unsigned int>(bytes.size() - 1));
}

std::string hex_of(UDCIDRecord& record) {
  char text[99] = "?";
  EXPECT_EQ(record.toString(text, 32 * record.ndcid + 25), CR_STATUS_OK);
  return text;
}

TEST_F(Uldb, reads_and_writes_lists_in_the_form_that_is_on_disk_and_refuses_every_other) {
  UDCIDRecord record;
  for (const auto& [good, written] :
       {std::pair(kEmptyHex, kEmptyHex), {kOldHex, kWidenedHex}, {kHex, kHex}}) {
    EXPECT_EQ(read(record, good), CR_STATUS_OK);
    UDCIDRecord copy(record);
    for (std::size_t i = 0; i < good.size(); ++i) {
      std::string flipped = good;
      flipped[i] = good[i] == '0' ? '1' : '0';
      EXPECT_EQ(read(record, flipped), CR_STATUS_BAD_DATA) << good << " at " << i;
      EXPECT_EQ(read(record, good.substr(0, i)), CR_STATUS_BAD_DATA) << good << i;
    }
    EXPECT_EQ(hex_of(record), written) << "stays as it was";
    EXPECT_EQ(hex_of(copy), written);
  }
  log.expect_error(CR_STATUS_BAD_DATA,
                   "Deserialize: udcid data crc mismatch, calculated 1572867, expected 1572883.");
  EXPECT_EQ(read(record, "020000000100000004001C00"), CR_STATUS_BAD_DATA) << "lacks its entry";
  log.clear();
}

TEST_F(Uldb, stores_lists_in_the_form_that_is_documented_and_hands_them_on_in_order) {
  EXPECT_EQ(put(db, "it's"), CR_STATUS_OK);
  EXPECT_EQ(
      raw_sql(file, "SELECT sql, poid, hex(udcids) FROM utable JOIN sqlite_master LIMIT 1"),
      (RawRows{{"CREATE TABLE utable (    poid TEXT PRIMARY KEY,    udcids BLOB)", "it's", kHex}}));
  EXPECT_EQ(db.del("it's") + db.get_one("it's", see), CR_STATUS_NOT_FOUND);
  for (const char* poid : {"c", "b", "a"}) EXPECT_EQ(put(db, poid), CR_STATUS_OK);
  seen.clear();
  EXPECT_EQ(db.get_all(see), 5) << "the second callback's answer, " << seen;
  seen.clear(), writer = &db;
  EXPECT_EQ(db.get_all(store_again_and_delete_c), CR_STATUS_OK);
  EXPECT_EQ(seen, "ab") << "each once, though its row is another now";
}

TEST_F(Uldb, loses_a_damaged_list_that_is_asked_for_and_a_damaged_file_and_nothing_else) {
  const auto update = [this](const std::string& what) {
    return [=] { raw_sql(file, "UPDATE utable SET " + what + " WHERE poid = 'b'"); };
  };
  const struct {
    std::function<void()> harm;
    cr_status_t get_all, get;  // of b
    unsigned long left;
  } cases[] = {{update("udcids = x'0200000000000000030018FF'"), 32, 32, 1},
               {update("udcids = NULL"), 32, 9, 2},
               {update("poid = NULL"), 0, 2, 2},  // it comes first, and the last row decides
               {[&] { fs::remove(file), fs::create_directory(file); }, 4, 4, 0},
               {update("poid = 'b' || char(0)"), 32, 2, 2},
               {[&] { fs::resize_file(file, 4096); }, 67, 67, 0}};
  for (const auto& damage : cases) {
    SCOPED_TRACE(&damage - cases);
    EXPECT_EQ(put(db, "a") + put(db, "b"), CR_STATUS_OK);
    db.db_close(), damage.harm(), seen.clear();
    EXPECT_EQ(db.get_all(see), damage.get_all);
    EXPECT_EQ(seen, damage.left == 1 || damage.left == 2 ? "a" : "");
    EXPECT_EQ(get(db, "b"), damage.get);
    EXPECT_EQ(rows(db), damage.left);
    EXPECT_EQ((db.db_close(), fs::remove(file), sqlite3_memory_used()), 0);
  }
  log.expect_error(32, "get_all_imp: UDCID list data of POID b is corrupt.");
  log.expect_error(
      32,
      "get_imp: UDCID List data of POID b corrupt,remove this record from database " + file + ".");
  log.clear();
}

TEST_F(Uldb, brackets_rows_and_waits_for_others_to_finish) {
  EXPECT_EQ(db.begin_transaction() + put(db, "a") + db.db_close(), CR_STATUS_OK);
  EXPECT_EQ(put(db, "b") + db.rollback_transaction(), CR_STATUS_OK) << "in a new transaction";
  EXPECT_EQ(rows(db), 0U);
  EXPECT_EQ(db.begin_transaction() + put(db, "a"), CR_STATUS_OK);
  TestDb other(dir, 0);
  for (const TestDb* one : {&db, &other}) sqlite3_busy_timeout(one->db, 0);  // no real waiting
  EXPECT_EQ(other.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_TRUE(sleep.sleeps().empty() && !other.is_transaction_active());
  sqlite3_exec(other.db, "BEGIN; SELECT * FROM utable", nullptr, nullptr, nullptr);
  EXPECT_EQ(db.commit_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  other.db_close();
  EXPECT_EQ(db.commit_transaction(), CR_STATUS_OK);
  EXPECT_EQ(rows(other), 1U);
  log.clear();
}

TEST_F(Uldb, says_what_became_of_its_file) {
  const auto find = [&] { return get(db, "a"); };
  const std::string made = "ULDB  doesn't exist.\ncreated UDCID List database \n";
  const struct {
    std::function<void()> harm;
    std::function<cr_status_t()> operation;
    cr_status_t status;
    std::string said;
  } cases[] = {
      {[&] { fs::remove(file); }, find, 2, made + "DB[] don't have record with POID = a\n"},
      {[&] { db.db_close(), write_file(file, "xx"); }, find, 67,
       R"(get_imp: DB[] failed to prepare SQL[SELECT udcids FROM utable WHERE poid = ?] (file is not a database).
db_corrupted: sqlite error code is 26 (file is not a database).
db_corrupted: UDCID List database  is corrupted. 
drop_db: Drop UDCID List database: 
Failed to recover database 
)"},
      {[&] { db.begin_transaction(), fs::remove(file); }, [&] { return db.commit_transaction(); },
       4,
       "begin_transaction: DB[] begin transaction (success).\n" + made +
           R"(db_exec_imp: : failed to execute "COMMIT TRANSACTION", (cannot commit - no transaction is active)
db_corrupted: sqlite error code is 1 (SQL logic error).
commit_transaction: DB[] commit transaction (operation failed).
)"},
      {[&] { let_file_vanish(); }, [&] { return get(db, "b"); }, 2,
       "get_imp: ULDB  doesn't exist, close handle of it.\n"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    db.db_close(), fs::remove_all(dir);
    EXPECT_EQ(put(db, "a"), CR_STATUS_OK);
    log.clear();
    c.harm();
    EXPECT_EQ(c.operation(), c.status);
    EXPECT_EQ(said(), c.said);
  }
}

// The index and the table are those of others: three rows have one name, the index knows another
// name for the one of 'd', and the last one has none.
TEST_F(Uldb, hands_out_no_list_of_another) {
  EXPECT_EQ(put(db, "a") + put(db, "c") + put(db, "e"), CR_STATUS_OK);
  raw_sql(file, R"(CREATE TABLE o AS SELECT * FROM utable;
INSERT INTO o VALUES ('a', x')" +
                    kEmptyHex + "'), ('a', x'" + kWidenedHex + R"('); CREATE INDEX i ON o (poid);
CREATE TABLE p AS SELECT nullif(replace(poid, 'c', 'd'), 'e'), udcids FROM o; PRAGMA writable_schema = 1;
UPDATE sqlite_schema AS s SET rootpage = (SELECT rootpage FROM sqlite_schema WHERE name = iif(s.type = 'table', 'p', 'i')) WHERE tbl_name = 'utable')");
  db.db_close(), seen.clear(), log.clear();
  EXPECT_EQ(db.get_all(see), CR_STATUS_BAD_DATA);
  EXPECT_EQ(seen, "a") << "once";
  EXPECT_EQ(get(db, "c") + get(db, "e"), 2 * CR_STATUS_CORRUPT);
  log.expect_error(32, "The index of UDCID lists leads POID e to the row of (null)");
  log.clear();
}

TEST_F(Uldb, stores_nothing_of_a_transaction_that_sqlite_has_undone) {
  EXPECT_EQ(db.begin_transaction() + put(db, "a") + db.db_exec("ROLLBACK"), CR_STATUS_OK);
  EXPECT_EQ(put(db, "b") + db.del("b") + db.commit_transaction(), 3 * CR_STATUS_FAILED);
  EXPECT_EQ(rows(db), 0U);
  EXPECT_EQ(db.rollback_transaction() + put(db, "c") + db.db_close() + get(db, "c"), CR_STATUS_OK);
  EXPECT_FALSE(db.is_transaction_active());
  log.expect_error(4, "put_imp: the transaction of " + file + " was lost, begin it again");
  log.clear();
}

TEST_F(Uldb, tries_again_after_a_recovery_that_succeeded) {
  const auto put_other = [&] { return put(db, "b"); };
  using Case = std::tuple<std::function<cr_status_t()>, cr_status_t, const char*>;
  for (const auto& [recovery, status, told] :
       {Case(put_other, 0, "db_corrupted: UDCID List database  is missing."),
        {[] { return CR_STATUS_OK; }, CR_STATUS_FAILED, "Failed to open database "},
        {[&] { return db.db_checkinit(), let_file_vanish(), put_other(); }, 4,
         "Failed to recover databa"}}) {
    EXPECT_EQ(put(db, "c"), CR_STATUS_OK);
    let_file_vanish(), db.recovery = recovery;
    EXPECT_EQ(put(db, "a"), status);
    EXPECT_NE(said().find(told), std::string::npos) << told;
    EXPECT_EQ(rows(db), status == CR_STATUS_OK ? 2U : 0U);
  }
}

cr_status_t fail(const char* poid, UDCIDRecord*) {
  if (*poid == 'a') throw std::bad_alloc();
  if (*poid == 'd') throw 7;
  throw Cr_ErrnoException(*poid == 'b' ? CR_STATUS_BUSY : CR_STATUS_OK, "", nullptr);
}
TEST_F(Uldb, refuses_what_it_cannot_store_and_bears_callbacks_that_throw) {
  UDCIDRecord huge(~0U, nullptr), bare(1, nullptr), none;
  huge.Dump(), refhost::set_log_level(refhost::LogLevel::Trace);
  EXPECT_EQ(db.put("a", &huge, nullptr), CR_STATUS_NO_MEMORY);
  EXPECT_EQ(db.put("a", &bare, nullptr) + db.put("a", nullptr, nullptr), 2 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(put(db, nullptr) + db.del(nullptr) + get(db, nullptr), 3 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(read(none, kOldHex), CR_STATUS_OK);
  huge.Dump(), none.Dump();
  log.expect(refhost::LogLevel::Trace, -1, "Old version 1 of UDCID record, converted to version 2");
  log.expect(refhost::LogLevel::Trace, -1, "dcid = 200, datasize = 0");
  EXPECT_EQ(TestDb(root.path(), 0).db_exec("") + db.db_open() + db.db_checkinit(), 4);
  EXPECT_EQ(db.rollback_transaction(), CR_STATUS_OK) << "of none";
  EXPECT_EQ(db.count(nullptr) + db.get_all(nullptr) + db.get_one("a", nullptr), 3 * 9);
  EXPECT_EQ(put(db, "a") + db.get_all(fail), CR_STATUS_NO_MEMORY);
  for (const auto& [poid, status] : {std::pair("a", 22), {"b", 11}, {"c", 4}, {"d", 4}}) {
    EXPECT_TRUE(put(db, poid) == CR_STATUS_OK && db.get_one(poid, fail) == status) << poid;
  }
  char text[99];
  unsigned int n = 99;
  EXPECT_EQ(none.Deserialize(nullptr, 9) + none.toString(nullptr, 24), 2 * CR_STATUS_BAD_ARG);
  EXPECT_EQ(none.Serialize(nullptr, n) + none.toString(text, 88) + bare.toString(text, 99), 3 * 9);
  log.expect_error(9, "toString: buf size 88 is too small, it should be 89 at least.");
  const std::uint64_t given[] = {300, 64, 300, 63};
  _cr_stat_t stat = {3, given};
  const UDCIDRecord record(&stat);
  EXPECT_EQ(std::vector(record.dcids, record.dcids + 2UL * record.ndcid),
            (std::vector<std::uint64_t>{64, 300, 0, 0}));
  ++stat.so_count;
  EXPECT_THROW(UDCIDRecord{&stat}, Cr_ErrnoException);
  EXPECT_THROW(UDCIDRecord(static_cast<_cr_stat_t*>(nullptr)), Cr_ErrnoException);
  stat = {0, nullptr};
  EXPECT_EQ(UDCIDRecord(&stat).ndcid + UDCIDRecord(bare).ndcid, 1U);
  EXPECT_TRUE(db.db_corrupted(SQLITE_FORMAT) && !db.db_corrupted(SQLITE_READONLY));
  db.clear_ops();
  EXPECT_EQ(std::pair(db.get_ops(), db.get_db_dir()), std::pair(decltype(db.get_ops()){}, dir));
  raw_sql(file, "DROP TABLE utable");
  EXPECT_EQ(rows(db), 0U);
  log.expect_error(CR_STATUS_FAILED, "count: faile to exec (SELECT COUNT(*) FROM utable;) ");
  db.db_close(), fs::remove(file), fs::create_directory(file);
  EXPECT_EQ(db.del("a") + db.commit_transaction() + db.rollback_transaction(), 3 * 4);
  log.clear();
}

}  // namespace
