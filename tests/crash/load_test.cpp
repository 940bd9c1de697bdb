// Many processes, and a pool's threads, update the same directories at once: nothing is lost, and
// nobody waits for long.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <functional>
#include <mutex>
#include <random>
#include <thread>

#include "po/file_po.h"
#include "podb/podb_pool.h"
#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/support/child_process.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr unsigned int kProcesses = 16, kThreads = 8, kDirectories = 3;
constexpr unsigned int kWriters = kProcesses + kThreads;
constexpr const char* kShared = "shared";  // the entry of a directory that all writers replace

// What the processes share: what failed, and how long each transaction waited to begin, in
// milliseconds.
struct Tally {
  std::atomic<unsigned int> updates, failures;
  std::atomic<int> first_failure;
  double waits[1];  // as many as there are updates
};

class Load : public testing::Test {
 protected:
  void SetUp() override {
    work_in_memory();
    root_ = std::make_unique<TempDir>();
    size_ = sizeof(Tally) + kWriters * updates_ * sizeof(double);
    void* shared = mmap(nullptr, size_, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(shared, MAP_FAILED);
    tally_ = static_cast<Tally*>(shared);
    refhost::set_log_level(refhost::LogLevel::Error);
  }
  void TearDown() override { munmap(tally_, size_); }

  std::string directory(unsigned int number) const {
    return root_->path("5/c/p" + std::to_string(number));
  }

  // Adds one to the sizes of the shared entry and of the writer's own.
  void update(PODB& database, unsigned int writer) {
    const auto asked = std::chrono::steady_clock::now();
    must(database.begin_transaction());
    const std::chrono::duration<double, std::milli> wait = std::chrono::steady_clock::now() - asked;
    tally_->waits[tally_->updates++] = wait.count();
    increase(database, kShared);
    increase(database, name_of(writer));
    must(database.commit_transaction());
  }

  // Updates directories at random.
  void write(const std::function<void(unsigned int)>& update_in, unsigned int writer) {
    std::mt19937 random(writer);
    for (unsigned long count = 0; count < updates_; ++count) {
      update_in(static_cast<unsigned int>(random() % kDirectories));
    }
  }
  void write_alone(unsigned int writer) {
    std::vector<std::unique_ptr<SQLitePODB>> databases;
    for (unsigned int number = 0; number < kDirectories; ++number) {
      databases.push_back(std::make_unique<SQLitePODB>(root_->path(), directory(number)));
    }
    write([&](unsigned int number) { update(*databases[number], writer); }, writer);
  }
  // Those who share a database of the pool take turns.
  void use_pool() {
    PODBPool pool(kDirectories);
    pool.init(root_->path(), new SQLitePODBFactory);
    std::array<std::mutex, kDirectories> turns;
    const auto update_leased = [&](unsigned int number, unsigned int writer) {
      const auto database = pool.get_podb(directory(number));
      const std::lock_guard<std::mutex> turn(turns[number]);
      update(*database, writer);
    };
    std::vector<std::thread> threads;
    for (unsigned int writer = kProcesses; writer < kWriters; ++writer) {
      threads.emplace_back([&, writer] {
        write([&](unsigned int number) { update_leased(number, writer); }, writer);
      });
    }
    for (std::thread& thread : threads) thread.join();
  }

  // The updates of all directories that an entry has seen.
  unsigned long updates_of(const std::string& name) {
    unsigned long sum = 0;
    for (unsigned int number = 0; number < kDirectories; ++number) {
      SQLitePODB database(root_->path(), directory(number));
      sum += size_of(database, name);
    }
    return sum;
  }

  static std::string name_of(unsigned int writer) { return "writer" + std::to_string(writer); }

  const unsigned long updates_ = sized("POCATALOG_LOAD_UPDATES", 250);
  std::unique_ptr<TempDir> root_;
  std::size_t size_ = 0;
  Tally* tally_ = nullptr;

 private:
  void must(cr_status_t status) {
    if (status == CR_STATUS_OK) return;
    if (tally_->failures++ == 0) tally_->first_failure = status;
  }

  // 0 for an entry that is not there yet.
  unsigned long size_of(PODB& database, const std::string& name) {
    FilePO entry(5U);
    const cr_status_t status = database.get(name, &entry);
    if (status != CR_STATUS_NOT_FOUND) must(status);
    return status == CR_STATUS_OK ? entry.get_size() : 0;
  }

  void increase(PODB& database, const std::string& name) {
    const unsigned long size = size_of(database, name) + 1;
    auto fields = file_fields(name, make_poid(size), size, "/c/p");
    fields.dsid = 5;
    FilePO entry(text_of(fields));
    ds_info_t info{};
    std::vector<PO*> removed, listed;
    std::string action;
    must(static_cast<cr_status_t>(entry.update(&database, info, removed, listed, action)));
    for (const PO* old : removed) delete old;
  }
};

TEST_F(Load, loses_no_update_and_lets_nobody_wait_for_30_seconds) {
  for (unsigned int number = 0; number < kDirectories; ++number) {
    SQLitePODB database(root_->path(), directory(number));
    ASSERT_EQ(database.check_db_existence(true), CR_STATUS_OK);
  }
  const auto start = std::chrono::steady_clock::now();
  std::vector<pid_t> children;
  for (unsigned int process = 0; process <= kProcesses; ++process) {
    children.push_back(start_child([&] {
      process < kProcesses ? write_alone(process) : use_pool();
      return 0;
    }));
  }
  for (const pid_t child : children) EXPECT_EQ(end_of(child), 0);
  const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;

  EXPECT_EQ(tally_->failures, 0U) << "the first with status " << tally_->first_failure;
  const unsigned int all = tally_->updates;
  ASSERT_EQ(all, kWriters * updates_);
  std::sort(tally_->waits, tally_->waits + all);
  const auto wait_of = [&](double part) {
    return tally_->waits[static_cast<std::size_t>(part * (all - 1))];
  };
  std::printf(
      "%u updates in %.1f s; waited %.1f ms (50 %%), %.1f ms (99 %%), %.1f ms (99.9 %%), "
      "%.1f ms (longest)\n",
      all, took.count(), wait_of(0.5), wait_of(0.99), wait_of(0.999), wait_of(1));
  EXPECT_LT(wait_of(1), 30000);
  for (unsigned int number = 0; number < kDirectories; ++number) {
    EXPECT_EQ(intact::faults_of(directory(number)), intact::Faults());
  }
  for (unsigned int writer = 0; writer < kWriters; ++writer) {
    EXPECT_EQ(updates_of(name_of(writer)), updates_);
  }
  EXPECT_EQ(updates_of(kShared), all);
}

}  // namespace
