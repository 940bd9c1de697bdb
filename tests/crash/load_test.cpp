// Many processes, and a pool's threads, update the same directories at once: nothing is lost, and
// nobody waits for long.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "po/file_po.h"
#include "podb/podb_pool.h"
#include "tests/crash/lane.h"
#include "tests/support/child_process.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr unsigned int kProcesses = 16, kThreads = 8, kDirectories = 3;
constexpr unsigned int kWriters = kProcesses + kThreads;
constexpr const char* kName = "shared";  // the entry of a directory that all writers replace

class Load : public testing::Test {
 protected:
  // Every writer adds one to the size of the entry of some directory, `updates` times.
  void run(unsigned long updates, bool in_transactions) {
    updates_ = updates, in_transactions_ = in_transactions;
    const unsigned long all = kWriters * updates;
    waits_ = shared<double>(all);
    for (const std::string& directory : directories_) {
      SQLitePODB database(root_.path(), directory);
      ASSERT_EQ(database.check_db_existence(true), CR_STATUS_OK);
    }
    const auto start = std::chrono::steady_clock::now();
    std::vector<pid_t> children = {start_child([&] { return use_pool(), 0; })};
    for (unsigned int process = 0; process < kProcesses; ++process) {
      children.push_back(start_child([&] { return write_alone(process), 0; }));
    }
    for (const pid_t child : children) EXPECT_EQ(end_of(child), 0);
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    std::sort(waits_, waits_ + all);
    std::printf("%lu updates in %.1f s; waited", all, took.count());
    for (const double part : {0.5, 0.99, 0.999, 1.0}) {
      longest_ = waits_[static_cast<std::size_t>(part * static_cast<double>(all - 1))];
      std::printf(" %.1f ms (%.1f %%)", longest_, 100 * part);
    }
    std::printf("\n");
    for (const std::string& directory : directories_) {
      EXPECT_EQ(intact::faults_of(directory), intact::Faults());
      SQLitePODB database(root_.path(), directory);
      counted_ += size_in(database);
    }
  }

  unsigned long counted_ = 0;
  double longest_ = 0;  // that anybody waited for a transaction to begin, in milliseconds

 private:
  void update(PODB& database, double& wait) {
    const auto asked = std::chrono::steady_clock::now();
    if (in_transactions_) must(database.begin_transaction());
    wait =
        std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - asked).count();
    const unsigned long size = size_in(database) + 1;
    FilePO entry(file_text(kName, make_poid(size), size, "/c/p"));
    must(database.put(&entry));
    if (in_transactions_) must(database.commit_transaction());
  }

  // 0 for an entry that is not there yet.
  static unsigned long size_in(PODB& database) {
    FilePO entry(5U);
    const cr_status_t status = database.get(kName, &entry);
    if (status != CR_STATUS_NOT_FOUND) must(status);
    return status == CR_STATUS_OK ? entry.get_size() : 0;
  }

  void write(unsigned int writer, const std::function<void(unsigned int, double&)>& update_in) {
    std::mt19937 random(writer);
    for (unsigned long count = 0; count < updates_; ++count) {
      update_in(static_cast<unsigned int>(random() % kDirectories),
                waits_[writer * updates_ + count]);
    }
  }
  void write_alone(unsigned int writer) {
    std::vector<std::unique_ptr<SQLitePODB>> databases;
    for (const std::string& directory : directories_) {
      databases.push_back(std::make_unique<SQLitePODB>(root_.path(), directory));
    }
    write(writer, [&](unsigned int number, double& wait) { update(*databases[number], wait); });
  }
  // Those who share a database of the pool take turns.
  void use_pool() {
    PODBPool pool(kDirectories);
    pool.init(root_.path(), new SQLitePODBFactory);
    std::mutex turns[kDirectories];
    std::vector<std::thread> threads;
    for (unsigned int writer = kProcesses; writer < kWriters; ++writer) {
      threads.emplace_back(&Load::write, this, writer, [&](unsigned int number, double& wait) {
        const auto database = pool.get_podb(directories_[number]);
        const std::lock_guard<std::mutex> turn(turns[number]);
        update(*database, wait);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  const TempDir root_ = (work_in_memory(), TempDir());
  const std::string directories_[kDirectories] = {root_.path("5/c/p"), root_.path("5/c/q"),
                                                  root_.path("5/c/r")};
  unsigned long updates_ = 0;
  bool in_transactions_ = true;
  double* waits_ = nullptr;
};

TEST_F(Load, loses_no_update_and_lets_nobody_wait_for_30_seconds) {
  const unsigned long updates = sized("POCATALOG_LOAD_UPDATES", 250);
  run(updates, true);
  EXPECT_EQ(counted_, kWriters * updates);
  EXPECT_LT(longest_, 30000);
}

TEST_F(Load, loses_updates_without_transactions) {
  run(100, false);
  EXPECT_LT(counted_, kWriters * 100);
}

}  // namespace
