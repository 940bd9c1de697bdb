// What verify, check, stats and dcids say about contents and their lists of containers.
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include "base/adler32.h"
#include "tests/cli/read_fixture.h"
#include "uldb/sqlite_uldb.h"

namespace {

using Numbers = std::vector<std::uint64_t>;

// A list whose checksum is right; the first half of the numbers are containers.
std::string list_of(const Numbers& numbers, char version = 2) {
  std::string bytes{version, 0, 0, 0, static_cast<char>(numbers.size() / 2), 0, 0, 0};
  bytes.append(reinterpret_cast<const char*>(numbers.data()), 8 * numbers.size());
  const std::uint32_t sum = base::adler32(base::kAdler32Start, bytes.data(), bytes.size());
  bytes.append(reinterpret_cast<const char*>(&sum), sizeof sum);
  const std::vector<unsigned char> raw(bytes.begin(), bytes.end());
  return fmt::format("x'{:02X}'", fmt::join(raw, ""));
}

// Files "alpha" and "beta" share a content; "gamma" has its own, and "empty" has none.
class ListCommandsTest : public CatalogTest {
 protected:
  ListCommandsTest() {
    add_content("alpha", 1, 1000);
    add_content("beta", 1, 1000);
    add_content("gamma", 2, 50);
    add_file("empty");
    add_list(1, {100, 200, 100, 200});
    add_list(2, {200, 200});
    write_counters(counters_);
  }

  void add_content(const std::string& name, std::uint64_t number, std::uint64_t size) {
    refhost::RecordFields fields = file_fields("", make_poid(number), size);
    fields.content_fp = fields.poid;
    add_file(name, fields);
  }
  // The first half of the numbers are containers.
  void add_list(std::uint64_t number, Numbers numbers) {
    UDCIDRecord list(static_cast<unsigned int>(numbers.size() / 2),
                     reinterpret_cast<unsigned char*>(numbers.data()));
    SQLiteULDB db(full(image_), 0);
    ASSERT_EQ(db.put(make_poid(number).c_str(), &list, nullptr), 0);
  }
  void write_counters(const cli::DsInfo& info) const {
    write_file(full("5/__dsinfo__"), cli::print_dsinfo(info));
  }

  // The findings of a command, without its summary.
  std::vector<nlohmann::json> findings(const std::string& name, int status) const {
    auto lines = expect(status, name + " --json " + root_).json();
    lines.pop_back();
    const auto failed = [](const nlohmann::json& line) { return line.contains("problem"); };
    lines.erase(std::remove_if(lines.begin(), lines.end(), failed), lines.end());
    return lines;
  }

  const cli::DsInfo counters_{{2050, 1, 4}, 0};
};

TEST_F(ListCommandsTest, EveryDamageToAListOrToTheDatabaseOfListsIsNamed) {
  const std::string sound = raw_sql(lists(), "SELECT hex(udcids) FROM utable").at(0).at(0);
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"poid = CAST(poid AS BLOB)", "poid is a blob"},
      {"poid = poid || char(0)", "poid holds a NUL"},
      {"poid = 'x'", "poid is not valid"},
      {"poid = NULL", "poid is NULL"},
      {"udcids = NULL", "udcids is NULL, not a blob"},
      {"udcids = 'x'", "udcids is text"},
      {"udcids = x''", "checksum or size"},
      {"udcids = x'" + sound.substr(2) + "'", "checksum or size"},
      {"udcids = " + list_of({100, 200, 1, 1}, 3), "version is 3, not 2"},
      {"udcids = " + list_of({}), "the list is empty"},
      {"udcids = " + list_of({63, 200, 1, 1}), "container 63 cannot exist"},
      {"udcids = " + list_of({100, 100, 1, 1}), "container 100 follows container 100"},
      {"CREATE INDEX more ON utable(udcids)", "index more does not belong"},
      {"DROP TABLE utable", "_utable_1 is missing"},
  };
  const std::string file = read_file(lists());
  for (const auto& [damage, reason] : cases) {
    const bool row = damage.find(" = ") != std::string::npos;
    raw_sql(lists(), row ? "UPDATE utable SET " + damage + " WHERE poid LIKE '%1'" : damage);
    const auto lines = findings("verify", cli::kInconsistent);
    ASSERT_FALSE(lines.empty()) << damage;
    EXPECT_EQ(lines[0].value("file", ""), lists());
    EXPECT_EQ(lines[0].value("rowid", 0), row ? 1 : 0);
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << lines[0];
    write_file(lists(), file);
  }
}

TEST_F(ListCommandsTest, VerifyAndCheckNameContentsAndListsThatDoNotFit) {
  using Found = std::map<std::string, std::string>;  // POID, and the file that is named
  const auto expect_found = [&](const Found& expected) {
    for (const char* name : {"verify", "check"}) {
      Found found;
      const bool fits = expected.empty();
      for (const auto& line : findings(name, fits ? cli::kDone : cli::kInconsistent)) {
        if (line.contains("poid")) found[line.value("poid", "")] = line.value("file", "");
      }
      EXPECT_EQ(found, expected) << name;
    }
  };
  const std::string alpha = full(image_) + "/alpha", gamma = full(image_) + "/gamma";
  expect_found({});
  raw_sql(lists(), "DELETE FROM utable WHERE poid LIKE '%1'");
  expect_found({{make_poid(1), alpha}});
  sql("DELETE FROM po WHERE basename = 'gamma'");
  expect_found({{make_poid(1), alpha}, {make_poid(2), lists()}});
  fs::remove(lists());
  add_content("gamma", 2, 50);
  expect_found({{make_poid(1), alpha}, {make_poid(2), gamma}});
  fs::remove(database(image_));
  add_list(1, {100, 100});
  expect_found({{make_poid(1), lists()}});
}

TEST_F(ListCommandsTest, MoreMismatchesThanAPageAreAllNamed) {
  raw_sql(lists(),
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1300) INSERT "
          "INTO utable SELECT printf('%064d', i), udcids FROM n, (SELECT udcids FROM utable LIMIT "
          "1)");
  EXPECT_EQ(findings("check", cli::kInconsistent).size(), 1300U);
}

// Lists are committed before entries: in between, whoever holds the lock has not finished.
TEST_F(ListCommandsTest, WhatAnIngestIsJustDoingIsNoMismatch) {
  add_list(3, {300, 300});
  hooks.lock = [&] { add_content("delta", 3, 10); };
  EXPECT_TRUE(findings("verify", cli::kDone).empty());
  EXPECT_EQ(hooks.lock, nullptr);
}

TEST_F(ListCommandsTest, CountersAreComparedUnlessARunIsAtWork) {
  const std::string file = full("5/__dsinfo__");
  EXPECT_EQ(findings("check", cli::kDone).size(), 0U);
  write_counters({{2051, 1, 3}, 0});
  EXPECT_EQ(findings("check", cli::kInconsistent).size(), 2U);
  write_counters({{2050, 1, 4}, 1});
  EXPECT_EQ(findings("check", cli::kInconsistent).size(), 1U);
  write_file(file, "x");
  EXPECT_EQ(findings("check", cli::kInconsistent).size(), 1U);
  fs::remove(file);
  EXPECT_EQ(findings("check", cli::kInconsistent).size(), 1U);
  const refhost::Fd run(::open((file + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
  flock(run.get(), LOCK_SH);
  EXPECT_EQ(findings("check", cli::kIncomplete).size(), 0U);
}

TEST_F(ListCommandsTest, StatsCountContentsAndContainersOnce) {
  add_directory(image_ + "/deep");
  fs::copy_file(database(image_), database(image_ + "/deep"));
  rows("/deep", "DELETE FROM po WHERE basename <> 'beta'");
  raw_sql(lists(), "UPDATE utable SET udcids = x'00' WHERE poid LIKE '%2'");
  const Outcome outcome = expect(cli::kInconsistent, "stats --json " + root_);
  EXPECT_EQ(outcome.json().at(1).dump(),  // the damaged list was told before
            R"({"bytes":3050,"containers":2,"content_bytes":1050,"contents":2,"directories":2,)"
            R"("files":5,"lists":1,"shared_contents":1,"unique_contents":1})");
}

// Nothing that reads writes anything; the library's own get would drop the damaged list.
TEST_F(ListCommandsTest, TheContainersOfAContentArePrintedAndNothingIsWritten) {
  add_content("lost", 3, 5);
  add_directory(image_ + "/bare");
  raw_sql(lists(), "INSERT INTO utable VALUES ('" + make_poid(4) + "', x'00')");
  const auto before = snapshot(root_);
  const struct {
    std::string content;
    int status;
    std::string containers;
  } cases[] = {
      {image_ + "/beta", cli::kDone, "100 200 "}, {make_poid(2), cli::kDone, "200 "},
      {image_ + "/empty", cli::kFailed, ""},      {image_ + "/none", cli::kFailed, ""},
      {make_poid(9), cli::kFailed, ""},           {image_ + "/lost", cli::kInconsistent, ""},
      {make_poid(4), cli::kInconsistent, ""},     {"../x", cli::kUsage, ""},
  };
  for (const auto& c : cases) {
    std::string containers;
    for (const auto& line : expect(c.status, "--json dcids " + root_ + " " + c.content).json()) {
      if (line.contains("dcid")) containers += line["dcid"].dump() + ' ';
    }
    EXPECT_EQ(containers, c.containers);
  }
  command("find " + root_ + " *");
  for (const char* name : {"stats ", "check ", "verify "}) command(name + root_);
  EXPECT_EQ(snapshot(root_), before);
}

}  // namespace
