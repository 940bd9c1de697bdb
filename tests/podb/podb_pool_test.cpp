#include "podb/podb_pool.h"

#include <array>
#include <boost/algorithm/string/erase.hpp>
#include <sstream>
#include <thread>

#include "tests/podb/fixture.h"

namespace {

constexpr hrtime_t kSecond = 1'000'000'000;

class PodbPool : public testing::Test {
 protected:
  PodbPool() { pool.init(root.path(), new SQLitePODBFactory); }
  void TearDown() override { refhost::set_case_sensitive(true), refhost::use_real_clock(); }
  std::shared_ptr<PODB> database(const std::string& name) { return pool.get_podb(root.path(name)); }
  std::string printed() {
    std::ostringstream out;
    pool.print(out);
    return boost::algorithm::erase_all_copy(out.str(), root.path());
  }

  LogCapture log;
  const TempDir root;
  PODBPool pool{2};
};

TEST_F(PodbPool, lets_go_of_databases_idle_for_more_than_300_seconds_when_it_is_full) {
  refhost::set_clock(0);
  auto held = database("a");
  EXPECT_EQ(database("b")->begin_transaction(), CR_STATUS_OK);
  database("c");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/c,1) \n") << "grows while its databases are busy";
  refhost::set_clock(300 * kSecond);
  database("d");
  refhost::set_clock(301 * kSecond);
  EXPECT_EQ(database("a"), held);
  EXPECT_EQ(pool.get_item_count(), 4U) << "neither 300 seconds nor a look-up reclaim";
  database("e");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/d,1) (/e,1) \n");
  held.reset(), pool.commit_all();
  refhost::set_clock(603 * kSecond);
  pool.reclaim();
  EXPECT_EQ(printed(), "\n");
}

TEST_F(PodbPool, stops_at_the_first_failure_to_commit_in_the_order_of_directories) {
  for (const char* name : {"c", "b", "a"}) {
    EXPECT_EQ(database(name)->begin_transaction(), CR_STATUS_OK);
  }
  std::static_pointer_cast<SQLitePODB>(database("b"))->exec_sql("ROLLBACK", nullptr);
  EXPECT_EQ(pool.commit_all(), CR_STATUS_FAILED);
  EXPECT_TRUE(database("c")->is_transaction_active(nullptr));
  EXPECT_FALSE(database("a")->is_transaction_active(nullptr));
  log.clear();
}

// Writers take turns at a directory, which has two spellings; the pool, at the directories of
// others, does not.
TEST_F(PodbPool, loses_no_row_of_threads_that_share_more_directories_than_it_holds) {
  constexpr unsigned long kDirs = 12, kWriters = 8, kRounds = 24;
  refhost::set_case_sensitive(false);
  std::array<std::mutex, kDirs> turns;
  const auto write = [&](unsigned long i, const std::string& leaf) {
    const std::lock_guard<std::mutex> turn(turns[i]);
    const auto shared = database("d" + std::to_string(i));
    EXPECT_EQ(database("D" + std::to_string(i)), shared);
    FilePO entry(file_text(leaf));
    EXPECT_EQ(shared->begin_transaction(), CR_STATUS_OK);
    EXPECT_EQ(shared->put(&entry), CR_STATUS_OK);
    EXPECT_EQ(shared->commit_transaction(), CR_STATUS_OK);
    refhost::advance_clock(301 * kSecond);
  };
  std::vector<std::thread> writers;
  for (unsigned long w = 0; w < kWriters; ++w) {
    writers.emplace_back([&write, w] {
      for (unsigned long i = 0; i < kRounds; ++i) {
        write((w * 5 + i) % kDirs, std::to_string(i) + "by" + std::to_string(w));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_LT(pool.get_item_count(), kDirs) << "nothing was reclaimed";
  for (unsigned long i = 0; i < kDirs; ++i) {
    unsigned long n = 0;
    EXPECT_EQ(database("d" + std::to_string(i))->count(&n), CR_STATUS_OK);
    EXPECT_EQ(n, kWriters * kRounds / kDirs);
  }
}

}  // namespace
