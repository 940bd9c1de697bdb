// Writers are killed at random moments, and readers while they recover what the writers left.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

// What a writer may do wrong, for the tests of the test.
enum class Fault { kNone, kAcknowledgesTooEarly, kWritesRowByRow };

// By writer: the value of its rows in po.db, and that of its list in ul.db, which is written next.
struct Values {
  std::array<unsigned long, kWriters> rows{}, lists{};
};

void must(cr_status_t status) {
  if (status != CR_STATUS_OK) throw status;
}

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

class Pipe {
 public:
  Pipe() { must(pipe(ends_) == 0 ? CR_STATUS_OK : CR_STATUS_IO_ERROR); }
  Pipe(const Pipe&) = delete;
  Pipe& operator=(const Pipe&) = delete;
  ~Pipe() { stop_writing(), close(ends_[0]); }

  template <typename Value>
  void write(const Value& value) const {
    must(::write(ends_[1], &value, sizeof value) == sizeof value ? CR_STATUS_OK
                                                                 : CR_STATUS_IO_ERROR);
  }
  // False at the end.
  template <typename Value>
  bool read(Value& value) const {
    return ::read(ends_[0], &value, sizeof value) == sizeof value;
  }
  void stop_writing() {
    if (ends_[1] >= 0) close(ends_[1]);
    ends_[1] = -1;
  }

 private:
  int ends_[2] = {-1, -1};
};

struct Acknowledgement {
  unsigned int writer;
  unsigned long value;
};

class KilledWriters : public testing::Test {
 protected:
  KilledWriters() {
    refhost::set_log_level(refhost::LogLevel::Error);
    refhost::log_to_sink([](const refhost::LogLine&) {});  // creations that were killed are noisy
  }

  void play(unsigned long rounds, Fault fault) {
    for (unsigned long round = 0; round < rounds; ++round) {
      if (round % 50 == 0) start_afresh();
      let_write(fault);
      if (chance(4) != 0) let_recover();
      if (chance(4) != 0 || fresh_) judge();
    }
    std::printf(
        "%lu rounds, %lu killed writers, %lu killed readers, %lu acknowledgements, %lu "
        "creations cut: %lu lost, %lu other faults\n",
        rounds, killed_writers_, killed_readers_, acknowledged_, cut_creations_, lost_, faults_);
  }

  unsigned long lost_ = 0, faults_ = 0;
  std::string first_;  // what was wrong first

 private:
  void start_afresh() {
    root_ = std::make_unique<TempDir>();
    last_ = {};
    rounds_since_judged_ = 0;
    fresh_ = true;
  }

  // New databases are made by one writer alone, as the library wants it.
  void let_write(Fault fault) {
    const unsigned int threads = fresh_ ? 1 : 1 + chance(2);
    const unsigned int processes = fresh_ ? 1 : 1 + chance(kWriters / threads);
    Pipe out;
    std::vector<pid_t> writers;
    for (unsigned int process = 0; process < processes; ++process) {
      writers.push_back(start_child([&] {
        std::vector<std::thread> others;
        for (unsigned int thread = 1; thread < threads; ++thread) {
          others.emplace_back([&, thread] { write(process * threads + thread, out, fault); });
        }
        return write(process * threads, out, fault);
      }));
    }
    out.stop_writing();
    usleep(chance(8000));
    std::shuffle(writers.begin(), writers.end(), random_);
    for (const pid_t writer : writers) killed_writers_ += kill_child(writer) ? 1 : 0;
    for (Acknowledgement got{}; out.read(got); ++acknowledged_) {
      last_.rows[got.writer] = last_.lists[got.writer] = got.value;
    }
    ++rounds_since_judged_;
  }

  // Until it is killed.
  int write(unsigned int writer, const Pipe& out, Fault fault) {
    const std::string name = std::to_string(writer);
    Store store(root_->path());
    for (;;) {
      if (fault != Fault::kWritesRowByRow) must(store.po.begin_transaction());
      const Acknowledgement acknowledgement{writer, store.get(name + kRows[0]) + 1};
      if (fault == Fault::kAcknowledgesTooEarly) out.write(acknowledgement);
      for (const char* row : kRows) store.put(name + row, acknowledgement.value);
      store.put(kTotal, store.get(kTotal) + 1);
      if (fault != Fault::kWritesRowByRow) must(store.po.commit_transaction());
      store.put_list(name, acknowledgement.value);
      if (fault != Fault::kAcknowledgesTooEarly) out.write(acknowledgement);
    }
  }

  void let_recover() {
    const pid_t reader = start_child([&] { return look(Pipe()); });
    usleep(chance(1500));
    killed_readers_ += kill_child(reader) ? 1 : 0;
  }

  // Says nothing when the databases cannot be read, a writer's rows differ or the total does not
  // add up.
  int look(const Pipe& out) try {
    must(intact::faults_of(root_->path("5/c/p")).empty() ? CR_STATUS_OK : CR_STATUS_CORRUPT);
    Store store(root_->path());
    Values found;
    unsigned long sum = 0;
    for (unsigned int writer = 0; writer < kWriters; ++writer) {
      const std::string name = std::to_string(writer);
      found.rows[writer] = store.get(name + kRows[0]);
      found.lists[writer] = store.get_list(name);
      for (const char* row : kRows) must(store.get(name + row) == found.rows[writer] ? 0 : -1);
      sum += found.rows[writer];
    }
    must(store.get(kTotal) == sum ? 0 : -1);
    out.write(found);
    return 0;
  } catch (cr_status_t) {
    return 0;
  }

  void judge() {
    Pipe out;
    const pid_t reader = start_child([&] { return look(out); });
    out.stop_writing();
    Values found;
    const bool readable = out.read(found);
    end_of(reader);
    const bool nothing = last_.rows[0] == 0 && (!readable || found.lists[0] == 0);
    if (fresh_ && nothing) {  // what is left of a killed creation is nobody's
      ++cut_creations_;
      return start_afresh();
    }
    if (!readable) ++faults_, note("damaged");
    if (readable) compare("row", found.rows, last_.rows), compare("list", found.lists, last_.lists);
    if (!readable || (fresh_ && found.lists[0] == 0)) return start_afresh();
    last_ = found;
    rounds_since_judged_ = 0;
    fresh_ = false;
  }

  // A transaction that was killed may be there or not, one in each round. A list takes its value
  // from the rows, and so passes over those whose own list was killed.
  void compare(const std::string& what, const std::array<unsigned long, kWriters>& found,
               const std::array<unsigned long, kWriters>& acknowledged) {
    for (unsigned int writer = 0; writer < kWriters; ++writer) {
      const unsigned long most = last_.rows[writer] + rounds_since_judged_;
      if (found[writer] < acknowledged[writer]) ++lost_, note("lost " + what);
      if (found[writer] > most) ++faults_, note("invented " + what);
    }
  }

  void note(const std::string& what) {
    if (first_.empty()) first_ = what;
  }

  unsigned int chance(unsigned int below) { return static_cast<unsigned int>(random_() % below); }

  // Whether it was still at work.
  static bool kill_child(pid_t child) {
    kill(child, SIGKILL);
    const int status = end_of(child);
    EXPECT_TRUE(WIFEXITED(status) || WTERMSIG(status) == SIGKILL) << "a child failed by itself";
    return WIFSIGNALED(status);
  }

  const bool in_memory_ = (work_in_memory(), true);
  std::unique_ptr<TempDir> root_;
  std::mt19937 random_{20261121};
  bool fresh_ = true;  // nothing has been acknowledged in the directory
  Values last_;        // acknowledged or found
  unsigned int rounds_since_judged_ = 0;
  unsigned long killed_writers_ = 0, killed_readers_ = 0, acknowledged_ = 0, cut_creations_ = 0;
};

TEST_F(KilledWriters, leave_every_acknowledged_transaction_whole) {
  play(sized("POCATALOG_KILL_ROUNDS", 500), Fault::kNone);
  EXPECT_EQ(lost_ + faults_, 0U) << first_;
}

TEST_F(KilledWriters, are_found_out_when_they_acknowledge_too_early) {
  play(60, Fault::kAcknowledgesTooEarly);
  EXPECT_GT(lost_, 0U);
}

TEST_F(KilledWriters, are_found_out_when_they_write_row_by_row) {
  play(60, Fault::kWritesRowByRow);
  EXPECT_GT(faults_, 0U);
}

}  // namespace
