// Writers are killed at random moments, and readers while they recover what the writers left.

#include <random>
#include <thread>

#include "tests/crash/lane.h"
#include "tests/support/child_process.h"

namespace {

constexpr unsigned int kWriters = 8;
constexpr const char* kTotal = "total";  // the sum of the writers' values

// A writer's last transactions. Its list in ul.db takes the value after its row in po.db.
struct Marks {
  std::atomic<unsigned long> begun, acknowledged;
};

class KilledWriters : public Lane {
 protected:
  // Dishonest writers acknowledge what they have not stored yet, and store it by and by.
  void play(unsigned long rounds, bool honest) {
    for (unsigned long round = 0; round < rounds; ++round) {
      if (round % 50 == 0) start_afresh();
      let_write(honest);
      const pid_t reader = start_child([&] { return judge(), 0; });
      killed_readers_ += kill_child(reader, chance(4) == 0 ? 1 : 1500);
      if (chance(4) != 0) judge();
    }
    judge();
    std::printf("%lu rounds, %d killed writers, %d killed readers: %lu lost, %lu other faults\n",
                rounds, killed_writers_, killed_readers_, lost_, faults_);
  }

  unsigned long lost_ = 0, faults_ = 0;

 private:
  void start_afresh() {
    std::filesystem::remove_all(directory_);
    SQLitePODB po(root_.path(), directory_);
    SQLiteULDB ul(directory_, 0);
    store(po, kTotal, 0), store(ul, kTotal, 0);
    for (unsigned int i = 0; i < kWriters; ++i) marks_[i].begun = marks_[i].acknowledged = 0;
  }

  // Processes of one thread or two.
  void let_write(bool honest) {
    std::vector<pid_t> writers;
    for (unsigned int left = 1 + chance(kWriters / 2); left > 0; --left) {
      const unsigned int first = 2 * left - 2;
      const bool two = chance(2) == 0;
      writers.push_back(start_child([&] {
        const std::thread other([&] { return two ? write(first + 1, honest) : 0; });
        return write(first, honest);
      }));
    }
    usleep(chance(8000));
    for (const pid_t writer : writers) killed_writers_ += kill_child(writer, 1);
  }

  // Until it is killed.
  int write(unsigned int writer, bool honest) {
    const std::string name = std::to_string(writer);
    Marks& mine = marks_[writer];
    SQLitePODB po(root_.path(), directory_);
    SQLiteULDB ul(directory_, 0);
    for (;;) {
      if (honest) must(po.begin_transaction());
      const unsigned long value = mine.begun = load(po, name) + 1;
      if (!honest) mine.acknowledged = value;
      store(po, name, value);
      store(po, kTotal, load(po, kTotal) + 1);
      if (honest) must(po.commit_transaction());
      store(ul, name, value);
      mine.acknowledged = value;
    }
  }

  void judge() try {
    must(intact::faults_of(directory_).empty() ? CR_STATUS_OK : CR_STATUS_CORRUPT);
    SQLitePODB po(root_.path(), directory_);
    SQLiteULDB ul(directory_, 0);
    unsigned long sum = 0;
    for (unsigned int writer = 0; writer < kWriters; ++writer) {
      const std::string name = std::to_string(writer);
      for (const unsigned long found : {load(po, name), load(ul, name)}) {
        lost_ += found < marks_[writer].acknowledged;
        faults_ += found > marks_[writer].begun;
      }
      sum += load(po, name);
    }
    faults_ += load(po, kTotal) != sum;
  } catch (cr_status_t) {
    ++faults_;
  }

  unsigned int chance(unsigned int below) { return static_cast<unsigned int>(random_() % below); }

  // After some microseconds; whether it was still at work.
  bool kill_child(pid_t child, unsigned int most) {
    usleep(chance(most));
    kill(child, SIGKILL);
    const int status = end_of(child);
    EXPECT_TRUE(WIFEXITED(status) || WTERMSIG(status) == SIGKILL) << "a child failed by itself";
    return WIFSIGNALED(status);
  }

  Marks* const marks_ = shared<Marks>(kWriters);
  std::mt19937 random_{20261121};
  int killed_writers_ = 0, killed_readers_ = 0;
};

TEST_F(KilledWriters, leave_every_acknowledged_transaction_whole) {
  play(sized("POCATALOG_KILL_ROUNDS", 500), true);
  EXPECT_EQ(lost_ + faults_, 0U);
}

TEST_F(KilledWriters, are_found_out_when_they_are_dishonest) {
  play(60, false);
  EXPECT_GT(lost_, 0U);
  EXPECT_GT(faults_, 0U);
}

}  // namespace
