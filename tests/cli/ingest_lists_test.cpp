// The lists of containers that an ingest keeps beside the rows.
#include <signal.h>

#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

const std::string kCommitOfLists = "COMMIT TRANSACTION";
const std::string kCommitOfRows = "COMMIT TRANSACTION;";

class IngestListsTest : public CommandTest {
 protected:
  void remove(const std::string& name) const { fs::remove(source_ + "/" + name); }
  void expect_lists(const Names& contents) const {
    EXPECT_EQ(lists_of(full(image_)), lists_for(contents));
  }
  int mended(const std::string& options) {
    const Outcome outcome = run(options);
    EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
    return outcome.json().back()["mended"];
  }
};

TEST_F(IngestListsTest, AListGoesWithTheLastFileOfItsContent) {
  for (const std::string name : {"1", "2", "3", "4"}) write(name, "shared");
  write("own", "own");
  ingest(cli::kDone);
  write("1", "new");
  remove("2");
  ingest(cli::kDone, "--delete");
  expect(cli::kDone, "rm " + root_ + " " + image_ + "/3");
  expect_lists({"shared", "own", "new"});
  remove("3");
  remove("own");
  write("4", "new");
  ingest(cli::kDone, "--delete");
  expect_lists({"new"});
  sql("UPDATE po SET crc = 0 WHERE basename = '4'");
  write("4", "newer");
  ingest(cli::kDone);
  expect_lists({"new", "newer"});
  EXPECT_EQ(counters(), (Counters{3 + 5, 2, 2, 0}));  // counted anew at once
}

// What a crash, or somebody's hand, left; the next run closes the gaps.
TEST_F(IngestListsTest, GapsBetweenRowsAndListsAreMended) {
  const auto damaged = [this](const std::string& by) { return [=] { raw_sql(lists(), by); }; };
  const std::pair<std::function<void()>, int> cases[] = {
      {damaged("DELETE FROM utable WHERE poid = '" + sha256_hex("x") + "'"), 1},
      {damaged("UPDATE utable SET udcids = x'0200'"), 2},
      {damaged("INSERT INTO utable SELECT '" + make_poid(1) + "', udcids FROM utable LIMIT 1"), 1},
      {[this] { fs::remove(lists()); }, 2},
      {[this] { write_file(lists(), std::string(4096, 'x')); }, 2},
  };
  write("1", "x");
  write("2", "x");
  write("3", "y");
  ingest(cli::kDone);
  for (const auto& [damage, gaps] : cases) {
    damage();
    EXPECT_EQ(mended("--no-content"), gaps) << err_;
    expect_lists({"x", "y"});
  }
  raw_sql(lists(), "DELETE FROM utable");
  write("1", "z");
  remove("3");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 1, 1, 0, 1}));
  expect_told("no list of containers, and no file to make it from, for 1 content");
  expect_lists({"x", "z"});
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
  EXPECT_GE(mended(""), 2);  // those that no row uses
  expect_told("were counted anew");
  EXPECT_EQ(counters(), (Counters{10, 2, 2, 0}));
  expect_lists({"same", "before"});
  expect_sound();
}

TEST_F(IngestListsTest, NoRowIsCommittedWithoutItsList) {
  write("lost", "x");
  hooks.sql = [](const std::string& sql) { return sql == kCommitOfLists ? SQLITE_FULL : 0; };
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 0, 0, 0, 1}));
  EXPECT_EQ(names(), Names());
  bool removed = false;
  hooks.sql = [&](const std::string& sql) {
    if (sql == kCommitOfLists && !std::exchange(removed, true)) fs::remove(lists());
    return 0;
  };
  EXPECT_EQ(ingest(cli::kDone), (Counters{1, 0, 0, 0, 0}));
  EXPECT_TRUE(removed);
  expect_lists({"x"});
}

}  // namespace
