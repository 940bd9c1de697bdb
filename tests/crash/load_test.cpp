// Many processes, and a pool's threads, update one directory at once: nothing is lost, and nobody
// waits for long.

#include <algorithm>
#include <chrono>
#include <mutex>
#include <thread>

#include "podb/podb_pool.h"
#include "tests/crash/lane.h"
#include "tests/support/child_process.h"

namespace {

constexpr unsigned int kProcesses = 16, kThreads = 8, kWriters = kProcesses + kThreads;

class Load : public Lane {
 protected:
  // Every writer adds one to the value of one entry, `updates` times.
  void run(unsigned long updates, bool in_transactions) {
    updates_ = updates, in_transactions_ = in_transactions;
    const unsigned long all = kWriters * updates;
    waits_ = shared<double>(all);
    SQLitePODB database(root_.path(), directory_);
    store(database, "shared", 0);
    must(database.close_db(0));
    std::vector<pid_t> children = {start_child([&] { return write(kProcesses, kThreads); })};
    for (unsigned int process = 0; process < kProcesses; ++process) {
      children.push_back(start_child([&] { return write(process, 1); }));
    }
    for (const pid_t child : children) EXPECT_EQ(end_of(child), 0);
    std::sort(waits_, waits_ + all);
    std::printf("%lu updates waited", all);
    for (const unsigned long rest : {all / 2, all / 100, all / 1000, 1UL}) {
      longest_ = waits_[all - rest];
      std::printf(" %.1f ms (all but %lu)", longest_, rest - 1);
    }
    std::printf("\n");
    EXPECT_EQ(intact::faults_of(directory_), intact::Faults());
    lost_ = all - load(database, "shared");
  }

  unsigned long lost_ = 0;
  double longest_ = 0;  // that anybody waited for a transaction to begin, in milliseconds

 private:
  void update(PODB& database, double& wait) const {
    const auto asked = std::chrono::steady_clock::now();
    if (in_transactions_) must(database.begin_transaction());
    const std::chrono::duration<double, std::milli> took = std::chrono::steady_clock::now() - asked;
    wait = took.count();
    store(database, "shared", load(database, "shared") + 1);
    if (in_transactions_) must(database.commit_transaction());
  }

  // Threads that share a database of a pool take turns.
  int write(unsigned int writer, unsigned int threads) const {
    PODBPool pool(1);
    pool.init(root_.path(), new SQLitePODBFactory);
    std::mutex turn;
    std::vector<std::thread> all;
    for (const unsigned int last = writer + threads; writer < last; ++writer) {
      all.emplace_back([&, first = writer * updates_] {
        for (unsigned long i = first; i < first + updates_; ++i) {
          const auto database = pool.get_podb(directory_);
          const std::lock_guard<std::mutex> lock(turn);
          update(*database, waits_[i]);
        }
      });
    }
    for (std::thread& thread : all) thread.join();
    return 0;
  }

  unsigned long updates_ = 0;
  bool in_transactions_ = true;
  double* waits_ = nullptr;
};

TEST_F(Load, loses_no_update_and_lets_nobody_wait_for_30_seconds) {
  run(sized("POCATALOG_LOAD_UPDATES", 250), true);
  EXPECT_EQ(lost_, 0U);
  EXPECT_LT(longest_, 30000);
}

TEST_F(Load, loses_updates_without_transactions) {
  run(100, false);
  EXPECT_LT(lost_ - 1, kWriters * 100);
}

}  // namespace
