// What verify, check, stats and dcids say about contents and their lists of containers.
#include <fcntl.h>
#include <sys/file.h>

#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"

namespace {

// Files "alpha" and "beta" share a content; "gamma" has its own, and "empty" has none.
class ListCommandsTest : public CommandTest {
 protected:
  ListCommandsTest() {
    for (const std::string name : {"alpha", "beta"}) write(name, "shared");
    write("gamma", "own");
    write("empty", "");
    ingest(cli::kDone);
  }
  // How many things the command tells about a file of this name, and for a reason with this in it.
  int told(const std::string& name, int status, const std::string& file,
           const std::string& reason = "") const {
    int count = 0;
    for (const auto& line : expect(status, name + " --json " + root_).json()) {
      const bool fits = line.value("reason", "").find(reason) != std::string::npos;
      count += int{fits && line.value("file", "") == file};
    }
    return count;
  }
  const std::string shared_ = sha256_hex("shared");
};

TEST_F(ListCommandsTest, EveryDamageToListsIsNamed) {
  const std::pair<std::string, std::string> cases[] = {
      {"UPDATE utable SET poid = CAST(poid AS BLOB)", "poid is a blob"},
      {"UPDATE utable SET poid = 'x' || rowid", "poid is not valid"},
      {"UPDATE utable SET udcids = NULL", "udcids is NULL, not a blob"},
      {"UPDATE utable SET udcids = x'0200'", "checksum or size"},
      {"UPDATE utable SET udcids = x'020000000000000003001800'", "the list is empty"},
      {"CREATE INDEX more ON utable(udcids)", "index more does not belong"},
      {"DROP TABLE utable", "_utable_1 is missing"},
  };
  const std::string sound = read_file(lists());
  for (const auto& [damage, reason] : cases) {
    raw_sql(lists(), damage);
    EXPECT_GE(told("verify", cli::kInconsistent, lists(), reason), 1) << reason;
    write_file(lists(), sound);
  }
}

TEST_F(ListCommandsTest, VerifyAndCheckNameContentsAndListsThatDoNotFit) {
  const auto expect_told = [this](int contents, int lone) {
    for (const char* name : {"verify", "check"}) {
      const int status = contents + lone == 0 ? cli::kDone : cli::kInconsistent;
      EXPECT_EQ(told(name, status, full(image_) + "/alpha"), contents);
      EXPECT_EQ(told(name, status, lists()), lone);
    }
  };
  expect_told(0, 0);
  raw_sql(lists(), "DELETE FROM utable WHERE poid = '" + shared_ + "'");
  sql("DELETE FROM po WHERE basename = 'gamma'");
  expect_told(1, 1);
  raw_sql(lists(),
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1300) "
          "INSERT INTO utable SELECT printf('%064d', i), udcids FROM n, utable");
  expect_told(1, 1301);  // more than a page holds
  fs::remove(lists());
  expect_told(1, 0);
}

TEST_F(ListCommandsTest, CountersAreComparedUnlessARunIsAtWork) {
  const std::string file = full("5/__dsinfo__");
  const std::pair<cli::DsInfo, int> cases[] = {
      {{{15, 2, 4}, 0}, 0}, {{{16, 2, 3}, 0}, 2}, {{{15, 2, 4}, 1}, 1}};
  for (const auto& [said, differences] : cases) {
    write_file(file, cli::print_dsinfo(said));
    EXPECT_EQ(told("check", differences == 0 ? 0 : cli::kInconsistent, file), differences);
  }
  const refhost::Fd run(::open((file + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
  flock(run.get(), LOCK_SH);
  expect(cli::kIncomplete, "check " + root_, "an ingest is at work");
}

// Nothing that reads writes anything; the library's own get would drop the damaged list.
TEST_F(ListCommandsTest, ContentsAndContainersAreCountedAndPrintedAndNothingIsWritten) {
  raw_sql(lists(), "UPDATE utable SET udcids = x'00' WHERE poid <> '" + shared_ + "'");
  const auto before = snapshot(root_);
  const Outcome outcome = expect(cli::kInconsistent, "stats --json " + root_);
  EXPECT_EQ(outcome.json().at(1).dump(),  // the damaged list was told before
            R"({"bytes":15,"containers":1,"content_bytes":9,"contents":2,"directories":2,)"
            R"("files":4,"lists":1,"shared_contents":1,"unique_contents":1})");
  const std::string dcids = "--json dcids " + root_ + " ";
  for (const std::string& content : {image_ + "/beta", shared_}) {
    const auto line = expect(cli::kDone, dcids + content).json().at(0);
    EXPECT_EQ(line["dcid"], container_of("shared"));
    EXPECT_EQ(line["bytes"], 6);
  }
  for (const std::string& none : {image_ + "/empty", image_ + "/none", make_poid(9)}) {
    expect(cli::kFailed, dcids + none);
  }
  expect(cli::kInconsistent, dcids + image_ + "/gamma");
  for (const char* name : {"check ", "verify "}) command(name + root_);
  command("find " + root_ + " *");
  EXPECT_EQ(snapshot(root_), before);
}

}  // namespace
