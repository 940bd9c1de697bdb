#include "podb/podb_pool.h"

#include <array>
#include <atomic>
#include <boost/algorithm/string/erase.hpp>
#include <sstream>
#include <thread>

#include "tests/podb/fixture.h"

namespace {

constexpr hrtime_t kIdle = 301'000'000'000;

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
  refhost::set_clock(kIdle - 1'000'000'000);
  database("d");
  refhost::set_clock(kIdle);
  EXPECT_EQ(database("a"), held);
  EXPECT_EQ(pool.get_item_count(), 4U) << "neither 300 seconds nor a look-up reclaim";
  database("e");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/d,1) (/e,1) \n");
  held.reset(), pool.commit_all();
  refhost::advance_clock(2 * kIdle);
  pool.reclaim();
  EXPECT_EQ(printed(), "\n");
}

TEST_F(PodbPool, commits_in_the_order_of_directories_up_to_the_first_failure) {
  for (const char* name : {"c", "b", "a"}) {
    EXPECT_EQ(database(name)->begin_transaction(), CR_STATUS_OK);
  }
  const auto b = std::static_pointer_cast<SQLitePODB>(database("b"));
  b->exec_sql("ROLLBACK", nullptr), log.clear();
  EXPECT_EQ(pool.commit_all(), CR_STATUS_FAILED);
  log.expect_error(4, "commit_all: Failed to commit transaction for " + root.path("b"));
  log.clear();
  EXPECT_FALSE(database("a")->is_transaction_active(nullptr));
  EXPECT_TRUE(database("c")->is_transaction_active(nullptr));
}

// Writers take turns at a directory, which has two spellings; the pool, at the directories of
// others, does not.
TEST_F(PodbPool, loses_no_row_of_threads_that_share_more_directories_than_it_holds) {
  constexpr unsigned long kDirs = 12, kWriters = 8;
  std::array<std::mutex, kDirs> turns;
  std::atomic<unsigned long> leaves{0};
  refhost::set_case_sensitive(false);
  const auto write_everywhere = [&](unsigned long first) {
    for (unsigned long i = first; i < first + kDirs; ++i) {
      const std::lock_guard<std::mutex> turn(turns[i % kDirs]);
      const auto shared = database("d" + std::to_string(i % kDirs));
      EXPECT_EQ(database("D" + std::to_string(i % kDirs)), shared);
      FilePO entry(file_text(std::to_string(++leaves)));
      EXPECT_EQ(shared->begin_transaction() + shared->put(&entry) + shared->commit_transaction(),
                0);
      refhost::advance_clock(kIdle);
    }
  };
  write_everywhere(0);
  std::vector<std::thread> threads;
  for (unsigned long w = 0; w < kWriters; ++w) threads.emplace_back(write_everywhere, w * 5);
  for (std::thread& thread : threads) thread.join();
  EXPECT_LT(pool.get_item_count(), kDirs) << "nothing was reclaimed";
  for (unsigned long i = 0; i < kDirs; ++i) {
    unsigned long n = 0;
    EXPECT_EQ(database("d" + std::to_string(i))->count(&n), CR_STATUS_OK);
    EXPECT_EQ(n, 1 + kWriters);
  }
}

}  // namespace
