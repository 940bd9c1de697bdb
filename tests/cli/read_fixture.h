// A catalog and a tree to ingest, the command run on them in this process, and a look at both past
// the library.
#pragma once

#include <nlohmann/json.hpp>
#include <sstream>

#include "cli/command.h"
#include "cli/dsinfo.h"
#include "cli/run.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "refhost/control.h"
#include "tests/support/files.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace fs = std::filesystem;

// What is done in the middle of a command, where hooks.cpp is among a program's sources.
struct Hooks {
  std::function<bool(const _po_t*)> record;    // each that is stored; true: too long for a row
  std::function<int(const std::string&)> sql;  // before it runs; a code other than 0 instead of it
  std::function<void()> lock;                  // before a lock is waited for, once
  bool clock = false;                          // there is a compliance clock: the system's
};
inline Hooks hooks;

struct Outcome {
  int status;
  std::string out, err;

  // The lines of `out`, each a JSON object.
  std::vector<nlohmann::json> json() const {
    std::vector<nlohmann::json> all;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) all.push_back(nlohmann::json::parse(line));
    return all;
  }
};

// Arguments have blanks between them, but for those in `more`; '' is an empty one.
inline Outcome command(const std::string& line, const std::vector<std::string>& more = {}) {
  std::istringstream words("pocatalog " + line);
  std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
  arguments.insert(arguments.end(), more.begin(), more.end());
  std::vector<const char*> argv;
  argv.reserve(arguments.size());
  for (const auto& word : arguments) argv.push_back(word == "''" ? "" : word.c_str());
  std::ostringstream out, err;
  const int status = cli::run(static_cast<int>(argv.size()), argv.data(), out, err);
  return {status, out.str(), err.str()};
}

// The command ends with this status and says this.
inline Outcome expect(int status, const std::string& line, const std::string& told = "") {
  Outcome outcome = command(line);
  const std::string all = outcome.out + outcome.err;
  EXPECT_EQ(outcome.status, status) << line << ": " << all;
  EXPECT_NE(all.find(told), std::string::npos) << line << ": not \"" << told << "\" but " << all;
  return outcome;
}

class CommandTest : public testing::Test {
 protected:
  using Counters = std::vector<std::uint64_t>;
  using Names = std::vector<std::string>;

  const TempDir temp_;
  const std::string root_ = temp_.path("catalog");
  const std::string source_ = temp_.path("source");
  const bool made_ = fs::create_directory(source_);
  const std::string image_ = "5/client/policy";

  CommandTest() {
    refhost::log_to_sink([](const refhost::LogLine&) {});
  }
  void TearDown() override { hooks = {}; }

  std::string full(const std::string& inner) const { return root_ + "/" + inner; }
  std::string database(const std::string& inner) const { return full(inner) + "/po.db"; }
  std::string lists() const { return full(image_) + "/ul.db"; }

  void add_directory(const std::string& inner) const {
    write_file(full(inner) + "/__dirpo__", text_of(dir_fields("", "")));
  }
  // Stores a row in the image's directory; `fields` need no location.
  void add_file(const std::string& name, refhost::RecordFields fields = file_fields("x")) {
    fields.directory = "/client/policy";
    fields.leaf = name;
    FilePO entry(text_of(fields));
    SQLitePODB db(root_, full(image_));
    ASSERT_EQ(entry.save(&db, full(image_) + "/" + name), 0U);
  }

  // Runs SQL on the database of a directory of the image, past the library.
  RawRows rows(const std::string& below, const std::string& statements) const {
    return raw_sql(database(image_ + below), statements);
  }
  // The first value of the last row.
  std::string sql(const std::string& statements) const {
    const RawRows found = rows("", statements);
    return found.empty() ? "" : found.back().front();
  }
  Names names(const std::string& below = "") const {
    Names found;
    const std::string all = "SELECT basename FROM po ORDER BY basename";
    for (const auto& row : rows(below, all)) found.push_back(row[0]);
    return found;
  }
  // Total size, directories, files and open runs.
  Counters counters() const {
    cli::DsInfo info;
    EXPECT_EQ(cli::read_dsinfo(root_, 5, &info), CR_STATUS_OK);
    return {info.counters.total_size, info.counters.dir_count, info.counters.file_count,
            info.open_runs};
  }

  // In the tree to ingest.
  void write(const std::string& name, const std::string& content) const {
    write_file(source_ + "/" + name, content);
  }
  std::string ingest_of(const std::string& source) const {
    return "ingest " + source + " --root " + root_ + " --dsid 5 --client client --policy policy ";
  }
  // Runs, says this and returns what was added, replaced, unchanged, removed and not done.
  Counters ingest(int status, const std::string& options = "", const std::string& told = "") const {
    auto lines = expect(status, "--json " + ingest_of(source_) + options, told).json();
    auto& done = lines.at(lines.size() - 1);
    return {done["added"], done["replaced"], done["unchanged"], done["removed"], done["not_done"]};
  }
};

// Where the image's directory exists, and the compliance clock is in the test's hand.
class CatalogTest : public CommandTest {
 protected:
  CatalogTest() {
    add_directory(image_);
    hooks.clock = true;
  }
  static void age(const std::string& path) {
    fs::last_write_time(path, fs::file_time_type::clock::now() - std::chrono::hours(24 * 40));
  }
  const std::string entry_ = root_ + " " + image_ + "/img ";
};
