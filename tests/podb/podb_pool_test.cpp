#include "podb/podb_pool.h"

#include <array>
#include <atomic>
#include <boost/algorithm/string/erase.hpp>
#include <functional>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "tests/podb/fixture.h"

namespace {

constexpr hrtime_t kSecond = 1'000'000'000;

// Its databases can be told to fail; of "null" it makes none, of "throw" less than that.
struct Factory : PODBFactory {
  struct Database : SpyPODB {
    using SpyPODB::SpyPODB;
    cr_status_t close_db(unsigned int flags) override {
      return failing == "CLOSE" ? CR_STATUS_BUSY : SpyPODB::close_db(flags);
    }
  };
  std::shared_ptr<PODB> create_podb(const std::string& root, const std::string& dir) override {
    if (getbasename(dir) == "throw") throw 1;
    return getbasename(dir) == "null" ? nullptr : std::make_shared<Database>(root, dir);
  }
};

class PodbPool : public testing::Test {
 protected:
  PodbPool() { pool.init(root.path(), new Factory); }
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
  for (const unsigned long capacity : {0UL, 1UL, 2UL}) {
    PODBPool some(capacity);
    some.init(root.path(), new Factory);
    some.get_podb(root.path("a"));
    refhost::advance_clock(301 * kSecond);
    some.get_podb(root.path("b"));
    EXPECT_EQ(some.get_item_count(), capacity < 2 ? 1U : 2U) << capacity;
  }
}

TEST_F(PodbPool, stops_at_the_first_failure_in_the_order_of_directories) {
  for (const char* name : {"c", "b", "a"}) {
    EXPECT_EQ(database(name)->begin_transaction(), CR_STATUS_OK);
  }
  const auto b = std::static_pointer_cast<SpyPODB>(database("b"));
  b->exec_sql("ROLLBACK", nullptr), log.clear();
  EXPECT_EQ(pool.commit_all(), CR_STATUS_FAILED);
  log.expect_error(4, "commit_all: Failed to commit transaction for " + root.path("b"));
  EXPECT_TRUE(database("c")->is_transaction_active(nullptr));
  EXPECT_FALSE(database("a")->is_transaction_active(nullptr));
  b->failing = "CLOSE", log.clear();
  EXPECT_EQ(pool.close_all(), CR_STATUS_BUSY);
  EXPECT_EQ(log.messages(refhost::LogLevel::Info),
            Names{"Close SQLite database " + root.path("a/po.db")});
  log.expect_error(11, "Failed to close database " + root.path("b"));
}

TEST_F(PodbPool, keeps_what_it_closes_for_further_use) {
  refhost::set_case_sensitive(false);
  const auto held = database("D");
  log.expect_info(0, "created PODB instance for " + root.path("D"));
  for (const auto& close : std::vector<std::function<cr_status_t()>>{
           [&] { return pool.close_podb(root.path("d"), 0); }, [&] { return pool.close_all(); }}) {
    FilePO entry(file_text("f"));
    EXPECT_EQ(held->begin_transaction() + held->put(&entry) + pool.commit_all(), CR_STATUS_OK);
    log.clear();
    EXPECT_EQ(close(), CR_STATUS_OK);
    log.expect_info(0, "Close SQLite database " + root.path("D/po.db"));
    EXPECT_TRUE(pool.exists_po(root.path("d/f")));
    EXPECT_FALSE(pool.exists_po(root.path("d/g")));
  }
  EXPECT_EQ(held->begin_transaction() + pool.close_all(), CR_STATUS_OK);
  EXPECT_NE(pool.commit_all(), CR_STATUS_OK) << "what was to be committed is lost";
  EXPECT_EQ(held->rollback_transaction() + pool.commit_all(), CR_STATUS_OK);
  log.clear();
}

TEST_F(PodbPool, survives_having_no_factory_and_one_that_makes_nothing) {
  PODBPool early(0);
  EXPECT_THROW(early.get_podb("a"), std::logic_error);
  for (int i = 0; i < 2; ++i) EXPECT_THROW(database("throw"), int);
  EXPECT_EQ(database("null"), nullptr);
  pool.reclaim();
  EXPECT_EQ(pool.commit_all() + pool.close_podb(root.path("null"), 0), CR_STATUS_OK);
  EXPECT_FALSE(pool.exists_po(root.path("null/f")));
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_FAILED);
  EXPECT_EQ(pool.close_all(), CR_STATUS_OK);
  EXPECT_EQ(printed(), "(/null,0) \n");
}

// Writers take turns at a directory, which has two spellings; the pool, at the directories of
// others, does not, nor do readers.
TEST_F(PodbPool, loses_no_row_of_threads_that_share_more_directories_than_it_holds) {
  constexpr unsigned long kDirs = 12, kWriters = 8, kRounds = 12;
  std::array<std::mutex, kDirs> turns;
  std::atomic<unsigned long> leaves{0};
  const auto write = [&](unsigned long i) {
    const std::lock_guard<std::mutex> turn(turns[i]);
    const auto shared = database("d" + std::to_string(i));
    EXPECT_EQ(database("D" + std::to_string(i)) == shared, !OSIsCaseSensitive());
    FilePO entry(file_text(std::to_string(++leaves)));
    EXPECT_EQ(shared->begin_transaction(), CR_STATUS_OK);
    EXPECT_EQ(shared->put(&entry), CR_STATUS_OK);
    EXPECT_EQ(shared->commit_transaction(), CR_STATUS_OK);
    refhost::advance_clock(301 * kSecond);
  };
  const auto count = [&](unsigned long i) {
    unsigned long n = 0;
    SQLitePODB own(root.path(), root.path("d" + std::to_string(i)));
    EXPECT_EQ(own.count(&n), CR_STATUS_OK);
    return n;
  };
  for (unsigned long i = 0; i < kDirs; ++i) write(i);
  for (const unsigned long pass : {1UL, 2UL}) {
    refhost::set_case_sensitive(pass == 2);
    std::vector<std::thread> threads;
    for (unsigned long w = 0; w < kWriters; ++w) {
      threads.emplace_back([&write, w] {
        for (unsigned long i = 0; i < kRounds; ++i) write((w * 5 + i) % kDirs);
      });
    }
    threads.emplace_back([&] {
      for (unsigned long i = 0; i < 4 * kDirs; ++i) EXPECT_GE(count(i % kDirs), 1U);
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_LT(pool.get_item_count(), pass * kDirs) << "nothing was reclaimed";
    for (unsigned long i = 0; i < kDirs; ++i) {
      EXPECT_EQ(count(i), 1 + pass * kWriters * kRounds / kDirs);
    }
  }
}

}  // namespace
