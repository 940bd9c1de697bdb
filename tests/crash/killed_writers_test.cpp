// Writers are killed at random moments, and readers while they recover what the writers left.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <random>
#include <thread>

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/support/child_process.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr unsigned int kWriters = 8;
constexpr const char* kRows[] = {"a", "b", "c"};  // of a writer: a transaction gives all one value
constexpr const char* kTotal = "total";           // counts the transactions of all writers

// A writer's last values. Its list in ul.db takes the value after its rows in po.db.
struct Marks {
  std::atomic<unsigned long> begun, acknowledged, count;
};

// The databases of the directory; a missing row or list has the value 0.
class Store {
 public:
  explicit Store(const std::string& root) : po(root, root + "/5/c/p"), ul(root + "/5/c/p", 0) {}

  void put(const std::string& name, unsigned long value) {
    FilePO entry(file_text(name, make_poid(value), value, "/c/p"));
    must(po.put(&entry));
  }
  unsigned long get(const std::string& name) {
    FilePO entry(5U);
    const cr_status_t status = po.get(name, &entry);
    if (status != CR_STATUS_NOT_FOUND) must(status);
    return status == CR_STATUS_OK ? entry.get_size() : 0;
  }
  void put_list(const std::string& name, unsigned long value) {
    std::vector<std::uint64_t> numbers(40, value);
    UDCIDRecord list(20, reinterpret_cast<unsigned char*>(numbers.data()));
    must(ul.put(name.c_str(), &list, nullptr));
  }
  unsigned long get_list(const std::string& name) {
    const std::unique_ptr<UDCIDRecord> list(ul.get(name.c_str()));
    return list != nullptr ? list->dcids[0] : 0;
  }

  SQLitePODB po;
  SQLiteULDB ul;
};

class KilledWriters : public testing::Test {
 protected:
  void SetUp() override {
    work_in_memory();
    refhost::set_log_level(refhost::LogLevel::Error);
  }

  // Dishonest writers acknowledge what they have not stored yet, and without a transaction.
  void play(unsigned long rounds, bool honest) {
    for (unsigned long round = 0; round < rounds; ++round) {
      if (round % 50 == 0) start_afresh();
      let_write(honest);
      if (chance(4) != 0) let_recover();
      if (chance(4) != 0) judge();
    }
    judge();
    unsigned long transactions = 0;
    for (unsigned int writer = 0; writer < kWriters; ++writer) transactions += marks_[writer].count;
    std::printf(
        "%lu rounds, %lu killed writers, %lu killed readers, %lu acknowledgements: %lu lost, %lu "
        "other faults\n",
        rounds, killed_writers_, killed_readers_, transactions, lost_, faults_);
  }

  unsigned long lost_ = 0, faults_ = 0;

 private:
  void start_afresh() {
    root_ = std::make_unique<TempDir>();
    Store store(root_->path());
    store.put(kTotal, 0), store.put_list(kTotal, 0);
    for (unsigned int i = 0; i < kWriters; ++i) marks_[i].begun = marks_[i].acknowledged = 0;
  }

  void let_write(bool honest) {
    const unsigned int threads = 1 + chance(2), processes = 1 + chance(kWriters / threads);
    std::vector<pid_t> writers;
    for (unsigned int process = 0; process < processes; ++process) {
      writers.push_back(start_child([&] {
        std::thread other([&] {
          if (threads == 2) write(process + processes, honest);
        });
        return write(process, honest);
      }));
    }
    usleep(chance(8000));
    for (const pid_t writer : writers) killed_writers_ += kill_child(writer) ? 1 : 0;
  }

  // Until it is killed.
  int write(unsigned int writer, bool honest) {
    const std::string name = std::to_string(writer);
    Marks& mine = marks_[writer];
    Store store(root_->path());
    for (;; ++mine.count) {
      if (honest) must(store.po.begin_transaction());
      const unsigned long value = mine.begun = store.get(name + kRows[0]) + 1;
      if (!honest) mine.acknowledged = value;
      for (const char* row : kRows) store.put(name + row, value);
      store.put(kTotal, store.get(kTotal) + 1);
      if (honest) must(store.po.commit_transaction());
      store.put_list(name, value);
      mine.acknowledged = value;
    }
  }

  void let_recover() {
    const pid_t reader = start_child([&] { return judge(), 0; });
    usleep(chance(1500));
    killed_readers_ += kill_child(reader) ? 1 : 0;
  }

  void judge() try {
    must(intact::faults_of(root_->path("5/c/p")).empty() ? CR_STATUS_OK : CR_STATUS_CORRUPT);
    Store store(root_->path());
    unsigned long sum = 0;
    for (unsigned int writer = 0; writer < kWriters; ++writer) {
      const std::string name = std::to_string(writer);
      const unsigned long value = store.get(name + kRows[0]);
      for (const unsigned long found : {value, store.get_list(name)}) {
        lost_ += found < marks_[writer].acknowledged;
        faults_ += found > marks_[writer].begun;
      }
      for (const char* row : kRows) faults_ += store.get(name + row) != value;
      sum += value;
    }
    faults_ += store.get(kTotal) != sum;
  } catch (cr_status_t) {
    ++faults_;
  }

  unsigned int chance(unsigned int below) { return static_cast<unsigned int>(random_() % below); }

  // Whether it was still at work.
  static bool kill_child(pid_t child) {
    kill(child, SIGKILL);
    const int status = end_of(child);
    EXPECT_TRUE(WIFEXITED(status) || WTERMSIG(status) == SIGKILL) << "a child failed by itself";
    return WIFSIGNALED(status);
  }

  std::unique_ptr<TempDir> root_;
  Marks* const marks_ = shared<Marks>(kWriters);
  std::mt19937 random_{20261121};
  unsigned long killed_writers_ = 0, killed_readers_ = 0;
};

TEST_F(KilledWriters, leave_every_acknowledged_transaction_whole) {
  play(sized("POCATALOG_KILL_ROUNDS", 500), true);
  EXPECT_EQ(lost_, 0U);
  EXPECT_EQ(faults_, 0U);
}

TEST_F(KilledWriters, are_found_out_when_they_are_dishonest) {
  play(60, false);
  EXPECT_GT(lost_, 0U);
  EXPECT_GT(faults_, 0U);
}

}  // namespace
