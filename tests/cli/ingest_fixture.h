// A tree to ingest, the command run on it in this process, and a look at the catalog past the
// library.
#pragma once

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "cli/dsinfo.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/raw_database.h"

// Called with every record that is printed, which happens to each entry that is stored; see
// record_hook.cpp. True makes the text too long for a row.
extern std::function<bool(const _po_t*)> on_record_printed;

// Called with every text that SQLite is given to execute; see sql_hook.cpp. An SQLite code other
// than 0 takes the place of its execution.
extern std::function<int(const std::string&)> on_sql;

class IngestTest : public testing::Test {
 protected:
  using Counters = std::vector<std::uint64_t>;

  const TempDir temp_;
  const std::string source_ = temp_.path("source");
  const std::string root_ = temp_.path("catalog");
  const std::string image_ = root_ + "/5/client/policy";
  std::string err_;  // of the last run

  IngestTest() { std::filesystem::create_directory(source_); }
  void TearDown() override {
    on_record_printed = nullptr;
    on_sql = nullptr;
  }

  static void put_file(const std::string& path, const std::string& content) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
  }
  void write(const std::string& name, const std::string& content) const {
    put_file(source_ + "/" + name, content);
  }

  Outcome run(const std::vector<std::string>& more = {}) {
    std::vector<std::string> arguments = {"--json", "ingest",   source_, "--root",
                                          root_,    "--dsid",   "5",     "--client",
                                          "client", "--policy", "policy"};
    arguments.insert(arguments.end(), more.begin(), more.end());
    Outcome outcome = run_command(arguments);
    err_ = outcome.err;
    return outcome;
  }

  // Runs and returns what was added, replaced, unchanged, removed and not done.
  Counters ingest(int status, const std::vector<std::string>& more = {}) {
    const Outcome outcome = run(more);
    EXPECT_EQ(outcome.status, status) << outcome.err;
    for (const auto& line : outcome.json()) {  // among the problems
      if (!line.contains("added")) continue;
      return {line["added"], line["replaced"], line["unchanged"], line["removed"],
              line["not_done"]};
    }
    return {};
  }

  // Total size, directories, files and open runs.
  Counters counters() const {
    cli::DsInfo info;
    if (cli::read_dsinfo(root_, 5, &info) != CR_STATUS_OK) return {};
    return {info.counters.total_size, info.counters.dir_count, info.counters.file_count,
            info.open_runs};
  }

  // Rows of a directory of the image.
  RawRows rows(const std::string& inner, const std::string& sql) const {
    return raw_sql(image_ + inner + "/po.db", sql);
  }
  std::vector<std::string> names(const std::string& inner = "") const {
    std::vector<std::string> found;
    for (const auto& row : rows(inner, "SELECT basename FROM po ORDER BY basename")) {
      found.push_back(row[0]);
    }
    return found;
  }

  static std::string read(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  // Every file of the catalog with its bytes.
  std::map<std::string, std::string> snapshot() const {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      if (entry.is_regular_file()) files[entry.path().string()] = read(entry.path().string());
    }
    return files;
  }
};
