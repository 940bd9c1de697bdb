#include <fstream>
#include <functional>
#include <thread>

#include "fixture.h"

namespace {

using Lifecycle = StoreTest;

// A leftover of a crash is no database; a foreign file is damaged, not empty.
TEST_F(Lifecycle, files_are_made_by_writes_alone_and_unusable_ones_are_neither_read_nor_replaced) {
  const struct {
    const char* content;
    cr_status_t write, read, listing, drop;
  } cases[] = {{nullptr, 2, 2, 0, 2}, {"", 32, 2, 0, 2}, {"this is no database", 67, 67, 67, 119}};
  unsigned long n = 7;
  POQueue found;
  for (const auto& c : cases) {
    if (c.content != nullptr) {
      std::filesystem::create_directories(dir);
      std::ofstream(file) << c.content;
      EXPECT_EQ(put("f"), c.write);
      EXPECT_EQ(db.begin_transaction(), c.write);
    }
    EXPECT_EQ(db.del("f"), c.write);
    EXPECT_EQ(get("f"), c.read);
    EXPECT_EQ(*__cr_errno_location(), c.write);
    *__cr_errno_location() = CR_STATUS_OK;
    EXPECT_FALSE(db.exists("f"));
    EXPECT_EQ(*__cr_errno_location(), c.write);
    EXPECT_EQ(db.count(&n), c.read);
    EXPECT_EQ(db.find_by_pattern("*", &found, false), c.listing);
    EXPECT_EQ(db.drop_db_if_empty(), c.drop);
    EXPECT_EQ(db.close_db(0), CR_STATUS_OK);
    EXPECT_EQ(std::filesystem::exists(dir), c.content != nullptr);
    log.clear();
  }
  EXPECT_EQ(std::filesystem::file_size(file), 19U);
  EXPECT_TRUE(found.empty());
}

// SQLite rolls back by itself on a full disk: what follows must not be stored piece by piece.
TEST_F(Lifecycle, transactions_are_one_and_a_lost_one_refuses_writes_until_it_is_rolled_back) {
  const std::function<cr_status_t()> writes[] = {
      [&] { return put("alone"); }, [&] { return db.del("f"); },
      [&] { return db.commit_transaction(); }, [&] { return db.begin_transaction(); }};
  for (const bool lost : {false, true}) {
    EXPECT_EQ(put("f") + db.begin_transaction() + put("g") + put("h"), CR_STATUS_OK);
    EXPECT_EQ(db.begin_transaction(), CR_STATUS_FAILED) << "they do not nest";
    if (lost) {
      EXPECT_EQ(db.exec_sql("ROLLBACK", nullptr), CR_STATUS_OK);
      for (const auto& write : writes) EXPECT_EQ(write(), CR_STATUS_FAILED);
    }
    log.clear();
    EXPECT_EQ(db.rollback_transaction(), CR_STATUS_OK);
    EXPECT_EQ(sql("SELECT basename FROM po"), RawRows{{"f"}});
  }
  EXPECT_EQ(db.begin_transaction() + put("g") + db.commit_transaction(), CR_STATUS_OK);
  EXPECT_FALSE(db.is_transaction_active(nullptr));
  EXPECT_EQ(sql("SELECT basename FROM po"), (RawRows{{"f"}, {"g"}}));
}

TEST_F(Lifecycle, properties_are_kept_while_the_database_is_open) {
  std::string value;
  EXPECT_EQ(db.set_property("a", "1"), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(put("f") + db.set_property("it's", "'1'"), CR_STATUS_OK);
  EXPECT_EQ(db.get_property("it's", &value), CR_STATUS_OK);
  EXPECT_EQ(value, "'1'");
  EXPECT_EQ(db.get_property("none", &value), CR_STATUS_NOT_FOUND);
  EXPECT_TRUE(db.potable_exists() && db.db_integrity_OK());
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
