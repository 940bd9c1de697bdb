// The lists of containers that an ingest keeps beside the rows.
#include <signal.h>

#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

const std::string kBeginOfLists = "BEGIN IMMEDIATE TRANSACTION";
const std::string kCommitOfLists = "COMMIT TRANSACTION";
const std::string kCommitOfRows = "COMMIT TRANSACTION;";

class IngestListsTest : public CommandTest {
 protected:
  void remove(const std::string& name) const { fs::remove(source_ + "/" + name); }
  void expect_lists(const Names& contents) const {
    EXPECT_EQ(lists_of(full(image_)), lists_for(contents));
  }
  int mended(const std::string& options = "") {
    const Outcome outcome = run(options);
    EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
    return outcome.json().back()["mended"];
  }
};

TEST_F(IngestListsTest, AListGoesWithTheLastFileOfItsContent) {
  for (const std::string name : {"1", "2", "3", "4", "5"}) write(name, "shared");
  write("own", "own");
  ingest(cli::kDone);
  write("1", "new");
  remove("2");
  ingest(cli::kDone, "--delete");
  expect(cli::kDone, "rm " + root_ + " " + image_ + "/3");
  expect_lists({"shared", "own", "new"});
  for (const std::string name : {"3", "4", "own"}) remove(name);
  write("own too", "own");
  ingest(cli::kDone, "--delete");
  expect_lists({"shared", "own", "new"});
  write("5", "new");
  ingest(cli::kDone);
  EXPECT_EQ(command("rm", {root_, image_ + "/own too"}).status, cli::kDone);
  expect_lists({"new"});
  sql("UPDATE po SET crc = 0 WHERE basename = '5'");
  write("5", "newer");
  ingest(cli::kDone);
  expect_lists({"new", "newer", "own"});
  EXPECT_EQ(counters(), (Counters{3 + 5 + 3, 2, 3, 0}));  // counted anew at once
  expect_sound();
}

// What a crash, or somebody's hand, left; the next run closes the gaps.
TEST_F(IngestListsTest, GapsBetweenRowsAndListsAreMended) {
  const auto damaged = [this](const std::string& by) { return [=] { raw_sql(lists(), by); }; };
  const auto replaced = [this](const std::string& by) { return [=] { write_file(lists(), by); }; };
  const struct {
    std::function<void()> damage;
    int mended;
  } cases[] = {
      {damaged("DELETE FROM utable WHERE poid = '" + sha256_hex("x") + "'"), 1},
      {damaged("UPDATE utable SET udcids = x'0200'"), 2},
      {damaged("UPDATE utable SET udcids = NULL"), 2},
      {damaged("INSERT INTO utable SELECT '" + make_poid(1) + "', udcids FROM utable LIMIT 1"), 1},
      {[this] { fs::remove(lists()); }, 2},
      {replaced(""), 2},
      {replaced(std::string(4096, 'x')), 2},
  };
  write("1", "x");
  write("2", "x");
  write("3", "y");
  ingest(cli::kDone);
  for (const std::string options : {"", "--no-content"}) {
    for (const auto& row : cases) {
      SCOPED_TRACE(&row - cases);
      row.damage();
      EXPECT_EQ(mended(options), row.mended) << err_;
      expect_lists({"x", "y"});
      EXPECT_EQ(mended(options), 0);
    }
  }
  expect_sound();
}

TEST_F(IngestListsTest, AContentWhoseFileChangedGetsNoWrongList) {
  write("changed", "x");
  write("gone", "y");
  ingest(cli::kDone);
  raw_sql(lists(), "DELETE FROM utable");
  remove("gone");
  write("changed", "z");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 1, 0, 0, 1}));
  expect_told("no list of containers, and no file to make it from, for 1 content");
  expect_lists({"z"});
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 1, 1, 0}));
}

TEST_F(IngestListsTest, ACrashBetweenTheCommitsIsMendedByTheNextRun) {
  write("changed", "before");
  write("same", "same");
  ingest(cli::kDone);
  write("changed", "after");
  write("new", "new");
  const int ended = end_of(start_child([this] {
    hooks.sql = [](const std::string& sql) { return sql == kCommitOfRows ? raise(SIGKILL) : 0; };
    return run("--threads 1").status;
  }));
  ASSERT_TRUE(WIFSIGNALED(ended));
  expect_lists({"same", "after", "new"});
  EXPECT_EQ(names(), (Names{"changed", "same"}));
  EXPECT_EQ(counters().back(), 1U);
  expect(cli::kInconsistent, "verify " + root_);

  write("changed", "before");
  remove("new");
  EXPECT_GE(mended(), 2);  // those that no row uses
  expect_told("were counted anew");
  EXPECT_EQ(counters(), (Counters{10, 2, 2, 0}));
  expect_lists({"same", "before"});
  expect_sound();
}

// The rows must not be committed with lists that are not all there.
TEST_F(IngestListsTest, ListsThatGetLostInTheMiddleAreDoneAgain) {
  const std::function<void()> losses[] = {
      [this] { fs::rename(lists(), lists() + ".away"), fs::copy_file(lists() + ".away", lists()); },
      [this] { fs::remove(lists()); }, [this] { write_file(lists(), std::string(8192, 'x')); }};
  write("old", "old");
  ingest(cli::kDone);
  Names contents = {"old"};
  for (const auto& loss : losses) {
    for (const bool at_commit : {false, true}) {
      SCOPED_TRACE(std::to_string(&loss - losses) + (at_commit ? " at the commit" : ""));
      for (int i = 0; i < 3; ++i) {
        contents.push_back("content " + std::to_string(contents.size()));
        write(contents.back(), contents.back());
      }
      bool done = false;
      const auto once = [&](bool now) {
        if (now && !std::exchange(done, true)) loss();
        return 0;
      };
      hooks.record = [&](const _po_t* record) {
        return once(!at_commit && POGetHashRef(record) == sha256_hex(contents.back())) != 0;
      };
      hooks.sql = [&](const std::string& sql) { return once(at_commit && sql == kCommitOfLists); };
      EXPECT_EQ(ingest(cli::kDone), (Counters{3, 0, contents.size() - 3, 0, 0})) << err_;
      EXPECT_TRUE(done);
      expect_lists(contents);
    }
  }
}

TEST_F(IngestListsTest, WithoutListsNoRowIsCommittedAndABusyDatabaseOfThemIsTriedAgain) {
  write("f", "x");
  hooks.sql = [](const std::string& sql) { return sql == kCommitOfLists ? SQLITE_FULL : 0; };
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 0, 0, 0, 1}));
  EXPECT_EQ(counters(), (Counters{0, 2, 0, 0}));
  EXPECT_EQ(names(), Names());
  int begins = 0;
  hooks.sql = [&](const std::string& sql) {
    return sql == kBeginOfLists && ++begins == 1 ? SQLITE_BUSY : 0;
  };
  EXPECT_EQ(ingest(cli::kDone, "--threads 1"), (Counters{1, 0, 0, 0, 0}));
  EXPECT_EQ(begins, 2);
  expect_lists({"x"});
}

// A name with a "/" in it comes from damage only. Its leaf is another row's name. However many
// there are, what else is to be done is done.
TEST_F(IngestListsTest, RowsWithImpossibleNamesTakeNoOtherOneAlong) {
  write("b", "x");
  write("gone", "x");
  ingest(cli::kDone);
  remove("gone");
  sql("WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 99) INSERT "
      "INTO po SELECT i || '/b', poid, content, crc FROM n, po WHERE basename = 'b'");
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 0, 1, 1, 99}));
  EXPECT_EQ(sql("SELECT COUNT(*) FROM po WHERE basename = 'b'"), "1");
  expect_lists({"x"});
}

}  // namespace
