// Writers are killed at random moments, and readers while they recover what the writers left.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <thread>

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

namespace {

constexpr unsigned int kWriters = 8;
constexpr unsigned int kRows = 3;        // of each writer; one transaction gives them all one value
constexpr const char* kTotal = "total";  // counts the transactions of all writers

enum Database : std::uint32_t { kPo, kUl, kDatabases };

// What a writer may do wrong, for the tests of the test.
enum class Fault { kNone, kAcknowledgesTooEarly, kWritesRowByRow };

struct Acknowledgement {
  std::uint32_t database, writer, value;
};

std::string row_name(unsigned int writer, unsigned int row) {
  return "writer" + std::to_string(writer) + "-" + std::to_string(row);
}

// The two databases behind one face: rows of a name and a value, which is 0 for a missing one.
class Store {
 public:
  Store(const std::string& root, const std::string& directory)
      : po_(root, directory), ul_(directory, 0) {}

  void put(Database database, const std::string& name, std::uint32_t value) {
    if (database == kPo) {
      FilePO entry(file_text(name, make_poid(value), value, "/c/p"));
      return must(po_.put(&entry));
    }
    std::vector<std::uint64_t> numbers(20, value);
    UDCIDRecord list(10, reinterpret_cast<unsigned char*>(numbers.data()));
    must(ul_.put(name.c_str(), &list, nullptr));
  }
  std::uint32_t get(Database database, const std::string& name) {
    if (database == kPo) {
      FilePO entry(5U);
      const cr_status_t status = po_.get(name, &entry);
      if (status != CR_STATUS_NOT_FOUND) must(status);
      return status == CR_STATUS_OK ? static_cast<std::uint32_t>(entry.get_size()) : 0;
    }
    const std::unique_ptr<UDCIDRecord> list(ul_.get(name.c_str()));
    return list != nullptr ? static_cast<std::uint32_t>(list->dcids[0]) : 0;
  }
  void begin(Database database) {
    must(database == kPo ? po_.begin_transaction() : ul_.begin_transaction());
  }
  void commit(Database database) {
    must(database == kPo ? po_.commit_transaction() : ul_.commit_transaction());
  }

 private:
  static void must(cr_status_t status) {
    if (status != CR_STATUS_OK) throw status;
  }

  SQLitePODB po_;
  SQLiteULDB ul_;
};

// What a reader finds; values of a writer whose rows differ, and totals that do not add up, are
// faults.
struct Found {
  std::array<std::array<std::uint32_t, kWriters>, kDatabases> values{};
  char fault[160] = "";

  void blame(const std::string& what) { std::strncpy(fault, what.c_str(), sizeof fault - 1); }
};

class KilledWriters : public testing::Test {
 protected:
  KilledWriters() { refhost::set_log_level(refhost::LogLevel::Error); }

  void play(unsigned long rounds, Fault fault) {
    for (unsigned long round = 0; round < rounds; ++round) {
      if (round % 50 == 0) start_afresh();
      let_write(fault);
      if (chance(4) != 0) let_recover();
      if (chance(4) != 0 || fresh_) judge();
    }
    std::printf(
        "%lu rounds, %lu killed writers, %lu killed readers, %lu transactions "
        "acknowledged, %lu creations cut: %lu lost, %lu other faults\n",
        rounds, killed_writers_, killed_readers_, acknowledged_, cut_creations_, lost_, faults_);
  }

  unsigned long lost_ = 0, faults_ = 0;
  std::string first_;  // what was wrong first

 private:
  void start_afresh() {
    directory_ = root_.path("5/c/p" + std::to_string(directories_++));
    last_ = {};
    rounds_since_judged_ = 0;
    fresh_ = true;
  }

  // A new database is made by one writer alone, as the library wants it.
  void let_write(Fault fault) {
    const unsigned int threads = fresh_ ? 1 : 1 + chance(2);
    const unsigned int processes = fresh_ ? 1 : 1 + chance(kWriters / threads);
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    std::vector<pid_t> writers;
    for (unsigned int process = 0; process < processes; ++process) {
      writers.push_back(start([&] {
        std::vector<std::thread> others;
        for (unsigned int thread = 1; thread < threads; ++thread) {
          others.emplace_back([&, thread] { write(process * threads + thread, ends[1], fault); });
        }
        write(process * threads, ends[1], fault);
      }));
    }
    close(ends[1]);
    wait_a_moment(8000);
    std::shuffle(writers.begin(), writers.end(), random_);
    for (const pid_t writer : writers) killed_writers_ += kill_child(writer) ? 1 : 0;
    Acknowledgement acknowledgement{};
    while (read(ends[0], &acknowledgement, sizeof acknowledgement) > 0) {
      ++acknowledged_;
      last_[acknowledgement.database][acknowledgement.writer] = acknowledgement.value;
    }
    close(ends[0]);
    ++rounds_since_judged_;
  }

  // Until it is killed.
  void write(unsigned int writer, int out, Fault fault) {
    Store store(root_.path(), directory_);
    for (;;) {
      for (const Database database : {kPo, kUl}) {
        const bool in_transaction = fault != Fault::kWritesRowByRow;
        if (in_transaction) store.begin(database);
        const std::uint32_t value = store.get(database, row_name(writer, 0)) + 1;
        const Acknowledgement acknowledgement{database, writer, value};
        const auto acknowledge = [&] {
          if (::write(out, &acknowledgement, sizeof acknowledgement) < 0) throw errno;
        };
        if (fault == Fault::kAcknowledgesTooEarly) acknowledge();
        for (unsigned int row = 0; row < kRows; ++row) {
          store.put(database, row_name(writer, row), value);
        }
        store.put(database, kTotal, store.get(database, kTotal) + 1);
        if (in_transaction) store.commit(database);
        if (fault != Fault::kAcknowledgesTooEarly) acknowledge();
      }
    }
  }

  void let_recover() {
    const pid_t reader = start([&] { look(); });
    wait_a_moment(1500);
    killed_readers_ += kill_child(reader) ? 1 : 0;
  }

  Found look() {
    refhost::log_to_sink([](const refhost::LogLine&) {});  // there may be no table yet
    Found found;
    const intact::Faults faults = intact::faults_of(directory_);
    if (!faults.empty()) found.blame(faults.front());
    Store store(root_.path(), directory_);
    for (const Database database : {kPo, kUl}) {
      std::uint32_t sum = 0;
      for (unsigned int writer = 0; writer < kWriters; ++writer) {
        const std::uint32_t value = store.get(database, row_name(writer, 0));
        for (unsigned int row = 1; row < kRows; ++row) {
          if (store.get(database, row_name(writer, row)) != value) found.blame("torn");
        }
        found.values[database][writer] = value;
        sum += value;
      }
      if (store.get(database, kTotal) != sum) found.blame("total");
    }
    return found;
  }

  void judge() {
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    const pid_t reader = start([&] {
      const Found found = look();
      if (::write(ends[1], &found, sizeof found) < 0) throw errno;
    });
    close(ends[1]);
    Found found;
    const bool complete = read(ends[0], &found, sizeof found) == sizeof found;
    close(ends[0]);
    ASSERT_EQ(waitpid(reader, nullptr, 0), reader);
    if (!complete) found.blame("unreadable");
    if (found.fault[0] != '\0') ++faults_, note(found.fault);
    for (const Database database : {kPo, kUl}) compare(found.values[database], last_[database]);
    last_ = found.values;
    rounds_since_judged_ = 0;
    if (fresh_) settle(found);
  }

  // A commit that was killed may be there or not, one in each round.
  void compare(const std::array<std::uint32_t, kWriters>& found,
               const std::array<std::uint32_t, kWriters>& acknowledged) {
    for (unsigned int writer = 0; writer < kWriters; ++writer) {
      if (found[writer] < acknowledged[writer]) ++lost_, note("lost");
      if (found[writer] > acknowledged[writer] + rounds_since_judged_) ++faults_, note("invented");
    }
  }

  // What is left of a creation that was killed is nobody's: the next one goes elsewhere.
  void settle(const Found& found) {
    fresh_ = false;
    if (found.values[kPo][0] != 0 && found.values[kUl][0] != 0) return;
    ++cut_creations_;
    start_afresh();
  }

  void note(const std::string& what) {
    if (first_.empty()) first_ = what + " in " + directory_;
  }

  unsigned int chance(unsigned int below) { return static_cast<unsigned int>(random_() % below); }
  void wait_a_moment(unsigned int most_us) { usleep(chance(most_us)); }

  static pid_t start(const std::function<void()>& act) {
    const pid_t child = fork();
    if (child == 0) [&act]() noexcept { act(), _exit(0); }();
    return child;
  }
  // Whether it was still at work.
  static bool kill_child(pid_t child) {
    kill(child, SIGKILL);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_FALSE(WIFSIGNALED(status) && WTERMSIG(status) != SIGKILL) << "a child failed by itself";
    return WIFSIGNALED(status);
  }

  const bool in_memory_ = (work_in_memory(), true);
  const TempDir root_;
  std::mt19937 random_{20261121};
  std::string directory_;
  unsigned int directories_ = 0;
  bool fresh_ = true;  // nothing has been acknowledged in the directory
  std::array<std::array<std::uint32_t, kWriters>, kDatabases> last_{};  // acknowledged or found
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
