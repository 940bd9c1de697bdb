// One catalog in the hands of many threads and processes.
#include <fmt/format.h>

#include <thread>

#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

class ThreadsTest : public CommandTest {
 protected:
  static constexpr int kAll = 240;

  // Four levels, as workers find directories while others wait for some.
  void make_tree() const {
    for (int file = 0; file < kAll; ++file) {
      const std::string name = std::to_string(file);
      write(fmt::format("{}/{}/{}/{}", file % 2, file % 6, file % 4, name), name);
    }
  }
  void expect_complete() {
    EXPECT_EQ(counters().at(2), kAll);
    expect(cli::kDone, "check " + root_);  // which compares counters, rows and lists
    expect(cli::kDone, "verify " + root_);
  }
};

TEST_F(ThreadsTest, ReadersSeeNoDamageWhileThreadsIngestAndRemove) {
  make_tree();
  EXPECT_EQ(ingest(cli::kDone, "--threads 1 --no-content").at(0), kAll);
  std::atomic<bool> changing{true};
  std::vector<std::thread> readers;
  for (const std::string& line : {"ls -R " + root_, "stats " + root_, "find " + root_ + " *"}) {
    readers.emplace_back([&changing, line] {
      while (changing) EXPECT_NE(command(line).status, cli::kInconsistent) << line;
    });
  }
  for (int round = 0; round < 8; ++round) {
    fs::remove_all(source_ + "/1");
    EXPECT_EQ(ingest(cli::kDone, "--threads 64 --delete").at(3), kAll / 2);
    make_tree();
    EXPECT_EQ(ingest(cli::kDone, "--threads 12").at(0), kAll / 2);
  }
  changing = false;
  for (std::thread& reader : readers) reader.join();
  expect_complete();
}

TEST_F(ThreadsTest, ProcessesThatIngestTheSameTreeAddEveryFileOnce) {
  make_tree();
  const auto process = [this] {
    const Counters done = ingest(cli::kDone, "--threads 4");
    return done.at(0) + done.at(2) == kAll ? 0 : 99;
  };
  std::vector<pid_t> children(4);
  for (pid_t& child : children) child = start_child(process);
  for (const pid_t child : children) EXPECT_EQ(end_of(child), 0);
  expect_complete();
}

}  // namespace
