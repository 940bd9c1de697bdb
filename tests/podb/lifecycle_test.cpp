#include <dlfcn.h>

#include <fstream>
#include <functional>
#include <new>
#include <thread>

#include "fixture.h"

namespace {

// While set, asked before each sqlite3_exec for a code to answer in its place; 0 means none.
std::function<int(const std::string& sql)> exec_hook;

}  // namespace

extern "C" int sqlite3_exec(sqlite3* db, const char* sql, sqlite3_callback callback, void* context,
                            char** error) {
  const int answer = exec_hook ? exec_hook(sql) : SQLITE_OK;
  if (answer != SQLITE_OK) return answer;
  static const auto real =
      reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
  return real(db, sql, callback, context, error);
}

namespace {

class Lifecycle : public StoreTest {
 protected:
  void TearDown() override { exec_hook = nullptr; }
};

TEST_F(Lifecycle, reads_create_no_file_and_writes_do) {
  FilePO entry(5);
  unsigned long n = 7;
  Names names;
  POQueue found;
  std::set<std::string> poids = {"p"};
  const std::pair<cr_status_t, std::function<cr_status_t()>> reads[] = {
      {2, [&] { return db.get("f", &entry, true); }},
      {2, [&] { return db.count(&n); }},
      {2, [&] { return db.del("f"); }},
      {2, [&] { return db.get_basenames(&names); }},
      {2, [&] { return db.find_by_cursor("", &names, 0); }},
      {0, [&] { return db.find_by_pattern("*", &found, false); }},
      {0, [&] { return db.double_check(&poids, &found, &poids, &n); }},
      {2, [&] { return db.drop_db_if_empty(); }},
      {0, [&] { return db.exists("f") || db.backupid_exists("f") || db.potable_exists(); }}};
  for (const auto& [expected, read] : reads) EXPECT_EQ(read(), expected);
  EXPECT_FALSE(std::filesystem::exists(dir));
  EXPECT_EQ(n + poids.size(), 8U);
  EXPECT_EQ(put("f"), CR_STATUS_OK);
  log.expect_info(CR_STATUS_NOT_FOUND, "Try to initialize PO database " + file);
  EXPECT_EQ(db.get_podb_version(), 1U);
  EXPECT_TRUE(db.db_integrity_OK());
  EXPECT_EQ(db.close_db(1), CR_STATUS_OK);
  EXPECT_TRUE(db.exists("f")) << "it opens again";
}

// A leftover of a crash is no database; a foreign file is damaged, not empty.
TEST_F(Lifecycle, unusable_files_are_neither_read_nor_recreated) {
  const struct {
    const char* content;
    cr_status_t status, get, drop;
  } cases[] = {{"", 32, 2, 2}, {"this is no database at all, is it?", 67, 67, 119}};
  std::filesystem::create_directories(dir);
  for (const auto& c : cases) {
    std::ofstream(file) << c.content;
    EXPECT_EQ(put("f"), c.status);
    EXPECT_EQ(db.del("f"), c.status);
    EXPECT_EQ(db.begin_transaction(), c.status);
    EXPECT_EQ(get("f"), c.get);
    EXPECT_EQ(*__cr_errno_location(), c.status);
    *__cr_errno_location() = CR_STATUS_OK;
    EXPECT_FALSE(db.exists("f"));
    EXPECT_EQ(*__cr_errno_location(), c.status);
    EXPECT_EQ(db.drop_db_if_empty(), c.drop);
    EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
    EXPECT_EQ(std::filesystem::file_size(file), std::string(c.content).size());
    log.clear();
  }
}

TEST_F(Lifecycle, transactions_commit_and_roll_back_as_one) {
  for (const bool commit : {false, true}) {
    EXPECT_EQ(db.begin_transaction(), CR_STATUS_OK);
    EXPECT_EQ(put("f") + put("g"), CR_STATUS_OK);
    EXPECT_EQ(db.begin_transaction(), CR_STATUS_FAILED) << "they do not nest";
    EXPECT_TRUE(db.is_transaction_active(nullptr));
    log.clear();
    EXPECT_EQ(commit ? db.commit_transaction() : db.rollback_transaction(), CR_STATUS_OK);
    EXPECT_FALSE(db.is_transaction_active(nullptr));
    EXPECT_EQ(sql("SELECT * FROM po").size(), commit ? 2U : 0U);
  }
  EXPECT_EQ(db.rollback_transaction(), CR_STATUS_OK);
  log.expect_info(0, "do_rollback_transaction: DB[" + file +
                         "] transaction is not active, skipped rollback operation.");
}

// SQLite rolls back by itself on a full disk: what follows must not be stored piece by piece.
TEST_F(Lifecycle, a_lost_transaction_refuses_writes_until_it_is_rolled_back) {
  EXPECT_EQ(put("before"), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_OK);
  EXPECT_EQ(put("lost"), CR_STATUS_OK);
  EXPECT_EQ(db.exec_sql("ROLLBACK", nullptr), CR_STATUS_OK);
  const std::pair<std::string, std::function<cr_status_t()>> writes[] = {
      {"exec_write", [&] { return put("alone"); }},
      {"exec_write", [&] { return db.del("before"); }},
      {"commit_transaction", [&] { return db.commit_transaction(); }},
      {"begin_transaction", [&] { return db.begin_transaction(); }}};
  for (const auto& [operation, write] : writes) {
    EXPECT_EQ(write(), CR_STATUS_FAILED);
    log.expect_error(4,
                     operation + ": the transaction of " + file + " was lost, roll it back first");
  }
  EXPECT_TRUE(db.is_transaction_active(nullptr));
  EXPECT_EQ(db.rollback_transaction(), CR_STATUS_OK);
  EXPECT_FALSE(db.is_transaction_active(nullptr));
  EXPECT_EQ(put("after"), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT basename FROM po ORDER BY 1"), (RawRows{{"after"}, {"before"}}));
}

TEST_F(Lifecycle, an_interrupted_creation_leaves_no_half_open_connection) {
  for (const int answer : {SQLITE_FULL, SQLITE_CORRUPT, SQLITE_NOMEM}) {
    exec_hook = [&](const std::string& sql) {
      if (sql.rfind("CREATE INDEX", 0) != 0) return SQLITE_OK;
      return answer != SQLITE_NOMEM ? answer : throw std::bad_alloc();
    };
    if (answer == SQLITE_NOMEM) {
      EXPECT_THROW(put("f"), std::bad_alloc);
    } else {
      EXPECT_EQ(put("f"), answer == SQLITE_CORRUPT ? CR_STATUS_CORRUPT : CR_STATUS_FAILED);
      EXPECT_EQ(std::filesystem::exists(file), answer == SQLITE_CORRUPT) << "for the caller";
    }
    std::filesystem::remove(file);
  }
  exec_hook = nullptr;
  log.clear();
  EXPECT_EQ(put("f"), CR_STATUS_OK);
  EXPECT_EQ(get("f"), CR_STATUS_OK);
}

TEST_F(Lifecycle, the_first_use_may_come_from_two_threads) {
  for (const char* name : {"a", "b", "c", "d", "e"}) {
    SQLitePODB shared(root.path(), root.path(name));
    cr_status_t result = -1;
    std::thread other([&] { result = shared.check_db_existence(true); });
    EXPECT_EQ(shared.check_db_existence(true), CR_STATUS_OK);
    other.join();
    EXPECT_EQ(result, CR_STATUS_OK);
    EXPECT_TRUE(shared.potable_exists());
  }
}

}  // namespace
