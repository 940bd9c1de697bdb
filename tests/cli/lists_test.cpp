// What verify, check, stats and dcids say about contents and their lists of containers.
#include <fcntl.h>
#include <sys/file.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>
#include <map>

#include "base/adler32.h"
#include "cli/dsinfo.h"
#include "tests/cli/lists_fixture.h"

namespace {

// What happens while a lock is waited for, once.
std::function<void()> before_lock;

}  // namespace

// Stands before the system's own.
extern "C" int flock(int file, int operation) {
  const std::function<void()> happens = std::exchange(before_lock, nullptr);
  if (happens) happens();
  return static_cast<int>(syscall(SYS_flock, file, operation));
}

namespace {

// A list whose checksum is right; the first half of the numbers are containers.
std::string list_of(std::initializer_list<std::uint64_t> numbers, char version = 2) {
  std::string bytes{version, 0, 0, 0, static_cast<char>(numbers.size() / 2), 0, 0, 0};
  bytes.append(reinterpret_cast<const char*>(numbers.begin()), 8 * numbers.size());
  const std::uint32_t sum = base::adler32(base::kAdler32Start, bytes.data(), bytes.size());
  bytes.append(reinterpret_cast<const char*>(&sum), sizeof sum);
  std::string hex;
  for (const char byte : bytes) {
    for (const int half : {byte >> 4, +byte}) hex += "0123456789ABCDEF"[half & 15];
  }
  return "x'" + hex + "'";
}

class ListCommandsTest : public ListsTest {
 protected:
  // The findings of a command, without its summary.
  std::vector<nlohmann::json> findings(const std::string& command, int* status) const {
    const Outcome outcome = run_command({command, "--json", root_});
    *status = outcome.status;
    auto lines = outcome.json();
    lines.pop_back();
    const auto failed = [](const nlohmann::json& line) { return line.contains("problem"); };
    lines.erase(std::remove_if(lines.begin(), lines.end(), failed), lines.end());
    return lines;
  }

  void write_counters(const cli::DsInfo& info) const {
    std::ofstream(full("5/__dsinfo__")) << cli::print_dsinfo(info);
  }
  const cli::DsInfo counters_{{2050, 1, 4}, 0};
};

TEST_F(ListCommandsTest, EveryDamageToAListOrToTheDatabaseOfListsIsNamed) {
  const std::string sound = raw_sql(lists(), "SELECT hex(udcids) FROM utable").at(0).at(0);
  const auto row = [](const std::string& change) {
    return "UPDATE utable SET " + change + " WHERE poid LIKE '%1'";
  };
  const std::vector<std::pair<std::string, std::string>> cases = {
      {row("poid = CAST(poid AS BLOB)"), "poid is a blob"},
      {row("poid = poid || char(0)"), "poid holds a NUL"},
      {row("poid = 'x'"), "poid is not valid"},
      {row("poid = NULL"), "poid is NULL"},
      {row("udcids = NULL"), "udcids is NULL, not a blob"},
      {row("udcids = 'x'"), "udcids is text"},
      {row("udcids = x''"), "checksum or size"},
      {row("udcids = x'" + sound.substr(2) + "'"), "checksum or size"},
      {row("udcids = " + list_of({100, 200, 1, 1}, 3)), "version is 3, not 2"},
      {row("udcids = " + list_of({})), "the list is empty"},
      {row("udcids = " + list_of({63, 200, 1, 1})), "container 63 cannot exist"},
      {row("udcids = " + list_of({100, 100, 1, 1})), "container 100 follows container 100"},
      {"CREATE INDEX more ON utable(udcids)", "index more does not belong"},
      {"DROP TABLE utable", "_utable_1 is missing"},
  };
  const TempDir side;
  std::filesystem::copy_file(lists(), side.path("sound"));
  for (const auto& [damage, reason] : cases) {
    SCOPED_TRACE(damage);
    raw_sql(lists(), damage);
    int status = 0;
    const auto lines = findings("verify", &status);
    EXPECT_EQ(status, cli::kInconsistent);
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines[0].value("file", ""), lists());
    EXPECT_EQ(lines[0].value("rowid", 0), damage.find("UPDATE") == 0 ? 1 : 0);
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << lines[0];
    std::filesystem::copy_file(side.path("sound"), lists(),
                               std::filesystem::copy_options::overwrite_existing);
  }
}

TEST_F(ListCommandsTest, VerifyAndCheckNameContentsAndListsThatDoNotFit) {
  struct Case {
    std::string name;
    std::function<void()> change;
    std::map<std::string, std::string> found;  // POID, and the file that is named
  };
  const std::string alpha = full(image_) + "/alpha";
  const std::string gamma = full(image_) + "/gamma";
  const std::vector<Case> cases = {
      {"all fits", [] {}, {}},
      {"a list less",
       [&] { raw_sql(lists(), "DELETE FROM utable WHERE poid LIKE '%1'"); },
       {{make_poid(1), alpha}}},
      {"an entry less as well",
       [&] { sql("DELETE FROM po WHERE basename = 'gamma'"); },
       {{make_poid(1), alpha}, {make_poid(2), lists()}}},
      {"no lists at all, and the entry again",
       [&] {
         std::filesystem::remove(lists());
         add_content("gamma", 2, 50);
       },
       {{make_poid(1), alpha}, {make_poid(2), gamma}}},
      {"no entries at all",
       [&] {
         std::filesystem::remove(database(image_));
         add_list(1, {100});
       },
       {{make_poid(1), lists()}}},
  };
  write_counters(counters_);
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    c.change();
    for (const char* command : {"verify", "check"}) {
      int status = 0;
      std::map<std::string, std::string> found;
      for (const auto& line : findings(command, &status)) {
        if (line.contains("poid")) found[line.value("poid", "")] = line.value("file", "");
      }
      EXPECT_EQ(found, c.found) << command;
      EXPECT_TRUE(c.found.empty() || status == cli::kInconsistent) << status;
    }
  }
}

TEST_F(ListCommandsTest, MoreMismatchesThanAPageAreAllNamed) {
  raw_sql(lists(),
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1300) INSERT "
          "INTO utable SELECT printf('%064d', i), udcids FROM n, (SELECT udcids FROM utable LIMIT "
          "1)");
  write_counters(counters_);
  int status = 0;
  EXPECT_EQ(findings("check", &status).size(), 1300U);
  raw_sql(lists(), "DELETE FROM utable WHERE poid LIKE '0%'");
  EXPECT_TRUE(findings("check", &status).empty());
}

// Lists are committed before entries: in between, whoever holds the lock has not finished.
TEST_F(ListCommandsTest, WhatAnIngestIsJustDoingIsNoMismatch) {
  add_list(3, {300});
  before_lock = [&] { add_content("delta", 3, 10); };
  int status = 0;
  EXPECT_TRUE(findings("verify", &status).empty());
  EXPECT_EQ(before_lock, nullptr);
  EXPECT_EQ(status, cli::kDone);
}

TEST_F(ListCommandsTest, CountersAreComparedUnlessARunIsAtWork) {
  struct Case {
    std::function<void()> change;
    std::size_t found;
    int status;
  };
  cli::DsInfo other = counters_;
  other.counters = {2051, 1, 3};
  cli::DsInfo open = counters_;
  open.open_runs = 1;
  const std::string lock = full("5/__dsinfo__.lock");
  const refhost::Fd run(::open(lock.c_str(), O_RDWR | O_CREAT, 0600));
  const std::vector<Case> cases = {
      {[&] { write_counters(counters_); }, 0, cli::kDone},
      {[&] { write_counters(other); }, 2, cli::kInconsistent},
      {[&] { write_counters(open); }, 1, cli::kInconsistent},
      {[&] { std::ofstream(full("5/__dsinfo__")) << "x"; }, 1, cli::kInconsistent},
      {[&] { std::filesystem::remove(full("5/__dsinfo__")); }, 1, cli::kInconsistent},
      {[&] { flock(run.get(), LOCK_SH); }, 0, cli::kIncomplete},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(&c - cases.data());
    c.change();
    int status = 0;
    EXPECT_EQ(findings("check", &status).size(), c.found);
    EXPECT_EQ(status, c.status);
  }
}

TEST_F(ListCommandsTest, StatsCountContentsAndContainersOnce) {
  add_directory(image_ + "/deep");
  std::filesystem::copy_file(database(image_), database(image_ + "/deep"));
  raw_sql(database(image_ + "/deep"), "DELETE FROM po WHERE basename <> 'beta'");
  raw_sql(lists(), "UPDATE utable SET udcids = x'00' WHERE poid LIKE '%2'");
  const Outcome outcome = run_command({"stats", "--json", root_});
  EXPECT_EQ(outcome.status, cli::kInconsistent);
  EXPECT_EQ(outcome.json().at(1).dump(),  // the damaged list was told before
            R"({"bytes":3050,"containers":2,"content_bytes":1050,"contents":2,"directories":2,)"
            R"("files":5,"lists":1,"shared_contents":1,"unique_contents":1})");
}

TEST_F(ListCommandsTest, TheContainersOfAContentArePrinted) {
  add_content("lost", 3, 5);
  raw_sql(lists(), "INSERT INTO utable VALUES ('" + make_poid(4) + "', x'00')");
  struct Case {
    std::string content;
    int status;
    std::string containers;
  };
  const std::vector<Case> cases = {
      {image_ + "/beta", cli::kDone, "100 200 "}, {make_poid(2), cli::kDone, "200 "},
      {image_ + "/empty", cli::kFailed, ""},      {image_ + "/none", cli::kFailed, ""},
      {make_poid(9), cli::kFailed, ""},           {image_ + "/lost", cli::kInconsistent, ""},
      {make_poid(4), cli::kInconsistent, ""},     {"../x", cli::kUsage, ""},
  };
  for (const Case& c : cases) {
    const Outcome outcome = run_command({"--json", "dcids", root_, c.content});
    EXPECT_EQ(outcome.status, c.status) << c.content;
    std::string containers;
    for (const auto& line : outcome.json()) {
      if (line.contains("dcid")) containers += line["dcid"].dump() + ' ';
    }
    EXPECT_EQ(containers, c.containers);
  }
}

TEST_F(ListCommandsTest, NoCommandThatReadsWritesAnything) {
  add_directory(image_ + "/bare");
  raw_sql(lists(), "UPDATE utable SET udcids = x'00' WHERE poid LIKE '%2'");  // get would drop it
  const auto snapshot = [&] {
    std::map<std::string, std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(root_)) {
      std::string& content = files[entry.path()];
      if (!entry.is_regular_file()) continue;
      std::ifstream file(entry.path(), std::ios::binary);
      content = {std::istreambuf_iterator<char>(file), {}};
    }
    return files;
  };
  const auto before = snapshot();
  run_command({"find", root_, "*"});
  run_command({"dcids", root_, make_poid(2)});
  for (const char* command : {"stats", "check", "verify"}) run_command({command, root_});
  EXPECT_EQ(snapshot(), before);
}

}  // namespace
