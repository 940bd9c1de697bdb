// The lists of containers that an ingest keeps beside the rows.
#include <signal.h>

#include "tests/cli/child_process.h"
#include "tests/cli/ingest_fixture.h"
#include "tests/cli/lists_of.h"

namespace {

namespace fs = std::filesystem;

const std::string kBeginOfLists = "BEGIN IMMEDIATE TRANSACTION";
const std::string kCommitOfRows = "COMMIT TRANSACTION;";

class IngestListsTest : public IngestTest {
 protected:
  std::string lists_file() const { return image_ + "/ul.db"; }
  void remove(const std::string& name) const { fs::remove(source_ + "/" + name); }
  void expect_lists(const std::vector<std::string>& contents) const {
    EXPECT_EQ(lists_of(image_), lists_for(contents));
  }
  void rm(const std::string& name) const {
    EXPECT_EQ(run_command({"rm", root_, "5/client/policy/" + name}).status, cli::kDone);
  }
  int mended(const std::vector<std::string>& more = {}) {
    const Outcome outcome = run(more);
    EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
    return outcome.json().back()["mended"];
  }
  void expect_verified() const {
    const Outcome outcome = run_command({"verify", root_});
    EXPECT_EQ(outcome.status, cli::kDone) << outcome.out << outcome.err;
  }
};

TEST_F(IngestListsTest, EveryContentHasItsContainersAndTheirBytes) {
  constexpr std::size_t kSegment = 4U << 20U;
  const std::vector<std::string> contents = {
      "x", std::string(300000, 'q'), std::string(kSegment, 'a'),
      std::string(2 * kSegment, 'a') + "rest",  // one container twice
      std::string(kSegment - 1, 'b') + std::string(kSegment + 2, 'c')};
  for (std::size_t i = 0; i < contents.size(); ++i) write(std::to_string(i), contents[i]);
  write("empty", "");
  write("a/other directory", "x");
  ingest(cli::kDone);
  expect_lists(contents);
  EXPECT_EQ(containers_of(contents[3]).size(), 2U);
  EXPECT_EQ(lists_of(image_ + "/a"), lists_for({"x"}));
  const auto before = snapshot();
  ingest(cli::kDone);
  EXPECT_EQ(snapshot(), before);
}

TEST_F(IngestListsTest, AListGoesWithTheLastFileOfItsContent) {
  for (const std::string name : {"1", "2", "3", "4", "5"}) write(name, "shared");
  write("own", "own");
  ingest(cli::kDone);
  write("1", "new");
  remove("2");
  ingest(cli::kDone, {"--delete"});
  rm("3");
  expect_lists({"shared", "own", "new"});
  for (const std::string name : {"3", "4", "own"}) remove(name);
  write("own too", "own");
  ingest(cli::kDone, {"--delete"});
  expect_lists({"shared", "own", "new"});
  write("5", "new");
  ingest(cli::kDone);
  rm("own too");
  expect_lists({"new"});
  expect_verified();
}

// What a crash, or somebody's hand, left; the next run closes the gaps.
TEST_F(IngestListsTest, GapsBetweenRowsAndListsAreMended) {
  struct Case {
    std::string name;
    std::string damage;  // SQL on the lists; none puts `content` in the place of the file
    std::string content;
    int mended;
  };
  const std::string lone = "INSERT INTO utable SELECT '" + std::string(64, 'a') + "', udcids";
  const std::vector<Case> cases = {
      {"a missing list", "DELETE FROM utable WHERE poid = '" + sha256_hex("x") + "'", "", 1},
      {"a damaged list", "UPDATE utable SET udcids = x'0200'", "", 2},
      {"no list at all", "UPDATE utable SET udcids = NULL", "", 2},
      {"a lone list", lone + " FROM utable LIMIT 1", "", 1},
      {"no file", "", "", 2},
      {"a file that is no database", "", std::string(4096, 'x'), 2}};
  write("1", "x");
  write("2", "x");
  write("3", "y");
  ingest(cli::kDone);
  for (const std::vector<std::string>& options : {std::vector<std::string>{}, {"--no-content"}}) {
    for (const Case& damaged : cases) {
      SCOPED_TRACE(damaged.name);
      if (!damaged.damage.empty()) raw_sql(lists_file(), damaged.damage);
      if (damaged.damage.empty()) put_file(lists_file(), damaged.content);
      if (damaged.name == "no file") fs::remove(lists_file());
      EXPECT_EQ(mended(options), damaged.mended) << err_;
      expect_lists({"x", "y"});
      EXPECT_EQ(mended(options), 0);
    }
  }
  expect_verified();
}

TEST_F(IngestListsTest, AContentWhoseFileChangedGetsNoWrongList) {
  write("changed", "x");
  write("gone", "y");
  ingest(cli::kDone);
  raw_sql(lists_file(), "DELETE FROM utable");
  remove("gone");
  write("changed", "z");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 1, 0, 0, 1}));
  EXPECT_NE(err_.find("no list of containers, and no file to make it from, for 1 content"),
            std::string::npos)
      << err_;
  expect_lists({"z"});
  EXPECT_EQ(ingest(cli::kDone, {"--delete"}), (Counters{0, 0, 1, 1, 0}));
}

TEST_F(IngestListsTest, ACrashBetweenTheCommitsIsMendedByTheNextRun) {
  write("changed", "before");
  write("same", "same");
  ingest(cli::kDone);
  write("changed", "after");
  write("new", "new");
  const int ended = end_of(start_child([this] {
    on_sql = [](const std::string& sql) { return sql == kCommitOfRows ? raise(SIGKILL) : 0; };
    return run({"--threads", "1"}).status;
  }));
  ASSERT_TRUE(WIFSIGNALED(ended));
  expect_lists({"same", "after", "new"});
  EXPECT_EQ(names(), (std::vector<std::string>{"changed", "same"}));
  EXPECT_EQ(run_command({"verify", root_}).status, cli::kInconsistent);

  write("changed", "before");
  remove("new");
  EXPECT_GE(mended(), 2);  // those that no row uses
  expect_lists({"same", "before"});
  expect_verified();
}

// The rows must not be committed with lists that are not all there.
TEST_F(IngestListsTest, ListsThatGetLostInTheMiddleAreDoneAgain) {
  const auto replace = [this] {
    fs::rename(lists_file(), lists_file() + ".away");
    fs::copy_file(lists_file() + ".away", lists_file());
  };
  const std::map<std::string, std::function<void()>> losses = {
      {"replaced", replace},
      {"deleted", [this] { fs::remove(lists_file()); }},
      {"overwritten", [this] { put_file(lists_file(), std::string(8192, 'x')); }}};
  write("old", "old");
  ingest(cli::kDone);
  std::vector<std::string> contents = {"old"};
  for (const auto& loss : losses) {
    for (const std::string moment : {"third", "commit"}) {
      SCOPED_TRACE(loss.first + " at the " + moment);
      for (const std::string place : {"first", "second", "third"}) {
        contents.push_back(moment + place);
        contents.back() += loss.first;
        write(contents.back(), contents.back());
      }
      bool done = false;
      const auto once = [&](bool now) {
        if (now && !std::exchange(done, true)) loss.second();
        return 0;
      };
      on_record_printed = [&](const _po_t* record) {
        return once(moment == "third" &&
                    std::string(POGetHashRef(record)) == sha256_hex(contents.back())) != 0;
      };
      on_sql = [&](const std::string& sql) {
        return once(sql == "COMMIT TRANSACTION" && moment == "commit");
      };
      EXPECT_EQ(ingest(cli::kDone), (Counters{3, 0, contents.size() - 3, 0, 0})) << err_;
      EXPECT_TRUE(done);
      expect_lists(contents);
    }
  }
}

TEST_F(IngestListsTest, WithoutListsNoRowIsCommitted) {
  write("f", "x");
  on_sql = [](const std::string& sql) { return sql == "COMMIT TRANSACTION" ? SQLITE_FULL : 0; };
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 0, 0, 0, 1}));
  EXPECT_EQ(counters(), (Counters{0, 2, 0, 0}));
  EXPECT_EQ(names(), std::vector<std::string>{});
}

// A name with a "/" in it comes from damage only. Its leaf is another row's name. However many
// there are, what else is to be done is done.
TEST_F(IngestListsTest, RowsWithImpossibleNamesTakeNoOtherOneAlong) {
  write("b", "x");
  write("gone", "x");
  ingest(cli::kDone);
  remove("gone");
  rows("",
       "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 99) INSERT "
       "INTO po SELECT i || '/b', poid, content, crc FROM n, po WHERE basename = 'b'");
  EXPECT_EQ(ingest(cli::kIncomplete, {"--delete"}), (Counters{0, 0, 1, 1, 99}));
  EXPECT_EQ(rows("", "SELECT COUNT(*) FROM po WHERE basename = 'b'"), (RawRows{{"1"}}));
  expect_lists({"x"});
}

TEST_F(IngestListsTest, ABusyDatabaseOfListsIsTriedAgain) {
  write("f", "x");
  int begins = 0;
  on_sql = [&](const std::string& sql) {
    return sql == kBeginOfLists && ++begins == 1 ? SQLITE_BUSY : 0;
  };
  EXPECT_EQ(ingest(cli::kDone, {"--threads", "1"}), (Counters{1, 0, 0, 0, 0}));
  EXPECT_EQ(begins, 2);
  expect_lists({"x"});
}

TEST_F(IngestListsTest, TheListGoesWithTheDamagedRow) {
  write("f", "old");
  ingest(cli::kDone);
  rows("", "UPDATE po SET crc = 0");
  write("f", "new");
  ingest(cli::kDone);
  expect_lists({"new"});
  EXPECT_EQ(counters(), (Counters{3, 2, 1, 0}));  // counted anew at once
  expect_verified();
}

}  // namespace
