#include "podb/podb_pool.h"

#include <array>
#include <filesystem>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr hrtime_t kSecond = 1'000'000'000;

struct FakeDb : SQLitePODB {
  using SQLitePODB::SQLitePODB;
  cr_status_t close_db(unsigned int flags) override { return closed = true, answer + int(flags); }
  cr_status_t do_begin_transaction() override { return CR_STATUS_OK; }
  cr_status_t do_commit_transaction() override { return answer; }
  bool exists(const std::string& basename) override { return basename == "leaf"; }
  cr_status_t answer = CR_STATUS_OK;
  bool closed = false;
};

struct FakeFactory : PODBFactory {
  std::shared_ptr<PODB> create_podb(const std::string& root, const std::string& dir) override {
    if (dir == "/bad") throw std::runtime_error(dir);
    return dir == "/null" ? nullptr : std::make_shared<FakeDb>(root, dir);
  }
};

class PodbPool : public testing::Test {
 protected:
  PodbPool() { pool.init("/cat", factory); }
  void TearDown() override { refhost::set_case_sensitive(true), refhost::use_real_clock(); }
  std::shared_ptr<FakeDb> begun(const std::string& dir) {
    pool.get_podb(dir)->begin_transaction();
    return std::static_pointer_cast<FakeDb>(pool.get_podb(dir));
  }
  std::string printed() {
    std::ostringstream out;
    return pool.print(out), out.str();
  }

  LogCapture log;
  FakeFactory* const factory = new FakeFactory;  // the pool's
  PODBPool pool{2};
};

TEST_F(PodbPool, lets_go_of_databases_idle_for_more_than_300_seconds_when_it_is_full) {
  refhost::set_clock(0);
  auto held = pool.get_podb("/a");
  begun("/b"), pool.get_podb("/c");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/c,1) \n") << "grows while its databases are busy";
  refhost::set_clock(300 * kSecond);
  pool.get_podb("/d");
  refhost::set_clock(301 * kSecond);
  EXPECT_EQ(pool.get_podb("/a"), held);
  EXPECT_EQ(pool.get_item_count(), 4U) << "neither 300 seconds nor a look-up reclaim";
  pool.get_podb("/e");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/d,1) (/e,1) \n");
  held.reset(), pool.commit_all();
  refhost::set_clock(603 * kSecond);
  pool.reclaim();
  EXPECT_EQ(printed(), "\n");
  PODBPool none(0);
  EXPECT_THROW(none.get_podb("/a"), std::logic_error);
  none.init("/cat", new FakeFactory);
  EXPECT_NE(none.get_podb("/a"), none.get_podb("/b"));
}

TEST_F(PodbPool, folds_spellings_where_the_host_does) {
  refhost::set_case_sensitive(false);
  const auto first = pool.get_podb("/Cat/X");
  EXPECT_EQ(pool.get_podb("/cat/x"), first);
  EXPECT_EQ(printed() + first->get_dir(), "(/cat/x,2) \n/Cat/X");
  log.expect_info(0, "created PODB instance for /Cat/X");
  refhost::set_case_sensitive(true);
  EXPECT_NE(pool.get_podb("/Cat/X"), first);
}

TEST_F(PodbPool, stops_at_the_first_failure_in_the_order_of_directories) {
  const auto last = begun("/c"), failing = begun("/b"), first = begun("/a");
  failing->answer = CR_STATUS_IO_ERROR;
  EXPECT_EQ(pool.commit_all(), CR_STATUS_IO_ERROR);
  log.expect_error(CR_STATUS_IO_ERROR, "commit_all: Failed to commit transaction for /b");
  EXPECT_TRUE(last->is_transaction_active(nullptr) && !first->is_transaction_active(nullptr));
  EXPECT_EQ(pool.close_all(), CR_STATUS_IO_ERROR);
  log.expect_error(CR_STATUS_IO_ERROR, "Failed to close database /b");
  EXPECT_TRUE(first->closed && !last->closed);
  EXPECT_EQ(pool.close_podb("/b", 3) - pool.close_podb("/none", 3), CR_STATUS_IO_ERROR + 3);
  EXPECT_EQ(pool.get_item_count(), 3U);
}

TEST_F(PodbPool, bears_factories_that_answer_null_or_throw) {
  pool.init("/root", factory);
  EXPECT_THROW(pool.get_podb("/bad"), std::runtime_error);
  EXPECT_EQ(pool.get_podb("/null"), nullptr);
  EXPECT_TRUE(pool.exists_po("/dir/leaf"));
  EXPECT_FALSE(pool.exists_po("/dir/other") || pool.exists_po("/null/leaf"));
  EXPECT_EQ(pool.get_podb("/dir")->get_root(), "/root");
  EXPECT_EQ(pool.commit_all() + pool.close_all() + pool.close_podb("/null", 1), CR_STATUS_OK);
  pool.reclaim();
  EXPECT_EQ(printed(), "(/dir,1) (/null,0) \n");
}

// Every directory has two spellings. Writers take turns at a directory; readers, and the pool at
// the directories of others, do not.
class WorkingPool : public testing::TestWithParam<bool> {
 protected:
  static constexpr unsigned long kDirs = 12, kWriters = 8, kRounds = 24;

  WorkingPool() {
    refhost::set_case_sensitive(GetParam());
    pool.init(root.path(), new SQLitePODBFactory);
    for (unsigned long i = 0; i < kDirs; ++i) write(i, "first"), link(i);
  }
  void TearDown() override { refhost::set_case_sensitive(true), refhost::use_real_clock(); }

  std::string dir(unsigned long i, char initial) const {
    return root.path(initial + std::to_string(i));
  }
  void link(unsigned long i) { std::filesystem::create_symlink(dir(i, 'd'), dir(i, 'D')); }
  void write(unsigned long i, const std::string& leaf) {
    const std::lock_guard<std::mutex> turn(turns[i]);
    const auto database = pool.get_podb(dir(i, leaf.size() % 2 == 0 ? 'D' : 'd'));
    FilePO entry(file_text(leaf));
    EXPECT_EQ(database->begin_transaction(), CR_STATUS_OK);
    EXPECT_EQ(database->put(&entry), CR_STATUS_OK);
    EXPECT_EQ(database->commit_transaction(), CR_STATUS_OK);
    refhost::advance_clock(301 * kSecond);
  }
  unsigned long rows(unsigned long i) {
    unsigned long n = 0;
    EXPECT_EQ(SQLitePODB(root.path(), dir(i, 'd')).count(&n), CR_STATUS_OK);
    return n;
  }

  LogCapture log{refhost::LogLevel::Error};
  const TempDir root;
  std::array<std::mutex, kDirs> turns;
  PODBPool pool{3};
};

TEST_P(WorkingPool, loses_no_row_of_threads_that_share_more_directories_than_it_holds) {
  std::atomic<bool> done{false};
  std::vector<std::thread> writers;
  writers.reserve(kWriters);
  for (unsigned long w = 0; w < kWriters; ++w) {
    writers.emplace_back([this, w] {
      for (unsigned long i = 0; i < kRounds; ++i) {
        write((w * 5 + i) % kDirs, std::to_string(i) + "by" + std::to_string(w));
      }
    });
  }
  const auto read = [&] {
    for (std::array<unsigned long, kDirs> seen{}; !done;) {
      for (unsigned long i = 0; i < kDirs; ++i) EXPECT_LE(std::exchange(seen[i], rows(i)), rows(i));
    }
  };
  std::thread readers[] = {std::thread(read), std::thread(read)};
  for (std::thread& writer : writers) writer.join();
  done = true;
  for (std::thread& reader : readers) reader.join();
  for (unsigned long i = 0; i < kDirs; ++i) EXPECT_EQ(rows(i), 1 + kWriters * kRounds / kDirs);
  EXPECT_LT(pool.get_item_count(), kDirs) << "nothing was reclaimed";
}

INSTANTIATE_TEST_SUITE_P(BothKinds, WorkingPool, testing::Bool());

}  // namespace
