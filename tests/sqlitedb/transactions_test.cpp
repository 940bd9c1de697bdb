#include <gtest/gtest.h>

#include "fixture.h"

namespace {

using Transactions = ConnectionTest;

TEST_F(Transactions, begin_commit_and_roll_back) {
  make_table(0);
  unsigned long rows = 0;
  for (const bool commit : {false, true}) {
    EXPECT_EQ(db.begin_transaction(), CR_STATUS_OK);
    EXPECT_TRUE(db.in_transaction());
    EXPECT_EQ(db.exec("INSERT INTO t VALUES (1)", nullptr), CR_STATUS_OK);
    EXPECT_EQ(commit ? db.commit_transaction() : db.rollback_transaction(), CR_STATUS_OK);
    EXPECT_FALSE(db.in_transaction());
    EXPECT_EQ(db.count_in_table("t", &rows), CR_STATUS_OK);
    EXPECT_EQ(rows, commit ? 1U : 0U);
  }
  EXPECT_EQ(db.commit_transaction(), CR_STATUS_FAILED);
  log.clear();
}

TEST_F(Transactions, give_up_after_60_busy_answers) {
  make_table(0);
  TestDb other(file);
  ASSERT_EQ(other.open_db(), CR_STATUS_OK);
  ASSERT_EQ(other.begin_transaction(), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_BUSY);
  EXPECT_EQ(sleep.sleeps(), std::vector<unsigned int>(60, 1));
  for (int attempt = 0; attempt < 60; ++attempt) {
    log.expect_info(CR_STATUS_BUSY,
                    file +
                        ": [[[\"BEGIN IMMEDIATE TRANSACTION;\"]]] (5:database is locked) returns "
                        "SQLITE_BUSY.");
  }
}

TEST_F(Transactions, begin_as_soon_as_the_other_writer_is_done) {
  make_table(0);
  TestDb other(file);
  ASSERT_EQ(other.open_db(), CR_STATUS_OK);
  ASSERT_EQ(other.begin_transaction(), CR_STATUS_OK);
  int slept = 0;
  const FakeSleep meanwhile([&](unsigned int) {
    if (++slept == 59) other.commit_transaction();
  });
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_OK);
  EXPECT_EQ(slept, 59);
}

TEST_F(Transactions, return_corruption_as_a_status) {
  write_file(std::string(4096, 'x'));
  ASSERT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_CORRUPT);
  log.expect_error(CR_STATUS_CORRUPT,
                   "begin_transaction: Catch sqlite database runtime exception [26]: file is not a "
                   "database");
  log.clear();
}

}  // namespace
