// One catalog in the hands of many threads and processes.
#include <thread>

#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

class IngestThreadsTest : public CommandTest {
 protected:
  static constexpr int kDirectories = 24;
  static constexpr int kFiles = 10;
  static constexpr int kAll = kDirectories * kFiles;

  // Four levels, as workers find directories while others wait for some.
  static std::string directory(int number) {
    return "/" + std::to_string(number % 2) + "/" + std::to_string(number % 6) + "/" +
           std::to_string(number);
  }
  // Of the files 0, 1, 2 ...
  static Names contents(int number) {
    Names all(kFiles, std::to_string(number) + " ");
    for (int file = 0; file < kFiles; ++file) all[std::size_t(file)] += std::to_string(file);
    return all;
  }
  void make_tree() const {
    for (int number = 0; number < kDirectories; ++number) {
      int file = 0;
      for (const std::string& content : contents(number)) {
        write(directory(number) + "/" + std::to_string(file++), content);
      }
    }
  }
  void expect_complete() {
    for (int number = 0; number < kDirectories; ++number) {
      EXPECT_EQ(names(directory(number)).size(), kFiles);
      EXPECT_EQ(lists_of(full(image_) + directory(number)), lists_for(contents(number)));
    }
    EXPECT_EQ(counters()[2], kAll);
    expect_sound();
  }
};

TEST_F(IngestThreadsTest, ThreadsIngestAndQueryOneCatalogAtOnce) {
  make_tree();
  write("first", "x");
  EXPECT_EQ(ingest(cli::kDone, "--threads 1 --no-content").at(0), 241U);
  std::atomic<bool> ingesting{true};
  std::vector<std::thread> readers;
  readers.reserve(4);
  for (int reader = 0; reader < 4; ++reader) {
    readers.emplace_back([&, reader] {
      for (int number = reader; ingesting; number = (number + 1) % kDirectories) {
        const std::string path = root_ + " " + image_ + directory(number);
        expect(cli::kDone, "ls " + path);
        expect(cli::kDone, "show " + path + "/0");
      }
    });
  }
  for (const auto& entry : fs::recursive_directory_iterator(source_)) {
    fs::last_write_time(entry, fs::file_time_type::clock::now() + std::chrono::hours(1));
  }
  EXPECT_EQ(ingest(cli::kDone, "--threads 12"), (Counters{0, 241, 0, 0, 0})) << err_;
  ingesting = false;
  for (std::thread& reader : readers) reader.join();
  fs::remove(source_ + "/first");
  EXPECT_EQ(ingest(cli::kDone, "--threads 64 --delete"), (Counters{0, 0, 240, 1, 0}));
  expect_complete();
}

TEST_F(IngestThreadsTest, ProcessesThatIngestTheSameTreeAddEveryFileOnce) {
  make_tree();
  const auto process = [this] {
    const Outcome outcome = run("--threads 4");
    const nlohmann::json summary = outcome.json().at(0);
    const int done = summary["added"].get<int>() + summary["unchanged"].get<int>();
    return done == kAll && summary["mended"] == 0 ? outcome.status : 99;
  };
  std::vector<pid_t> children(4);
  for (pid_t& child : children) child = start_child(process);
  for (const pid_t child : children) EXPECT_EQ(end_of(child), 0);
  expect_complete();
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, 0, kAll, 0, 0}));
}

TEST_F(IngestThreadsTest, DescriptorsDoNotGrowWithTheTreeAndProblemsAreToldInWholeLines) {
  for (int number = 0; number < 200; ++number) {
    write(std::to_string(number) + "/f", "x");
    fs::create_directory(source_ + "/" + std::to_string(number) + "/po.db");
  }
  std::atomic<std::ptrdiff_t> most{0};
  hooks.record = [&](const _po_t*) {
    const fs::directory_iterator descriptors("/proc/self/fd");
    const std::ptrdiff_t open = std::distance(begin(descriptors), end(descriptors));
    if (open > most) most = open;
    return false;
  };
  EXPECT_EQ(ingest(cli::kIncomplete, "--threads 8"), (Counters{200, 0, 0, 0, 200}));
  EXPECT_GT(most, 0);
  EXPECT_LT(most, 100);
  std::istringstream lines(err_);
  int told = 0;
  for (std::string line; std::getline(lines, line); ++told) {
    EXPECT_EQ(line.find("pocatalog: " + source_ + "/"), 0U) << line;
    EXPECT_NE(line.find("/po.db: skipped"), std::string::npos) << line;
  }
  EXPECT_EQ(told, 200);
}

// The counters may lack what was committed by then: the next run counts anew.
TEST_F(IngestThreadsTest, WhatAThreadThrowsEndsTheRunAndNothingElse) {
  make_tree();
  std::atomic<int> printed{0};
  hooks.record = [&](const _po_t*) {
    if (++printed > 100) throw std::runtime_error("thrown by a thread");
    return false;
  };
  EXPECT_EQ(ingest(cli::kFailed, "--threads 4"), Counters{});
  EXPECT_EQ(err_, "pocatalog: thrown by a thread\n");
  hooks = {};
  ingest(cli::kDone);
  expect_told("counted anew");
  expect_complete();
}

}  // namespace
