// What goes wrong in the middle of an ingest: nothing is lost, the next run mends it, and it is
// told.
#include <linux/capability.h>
#include <signal.h>
#include <sys/syscall.h>

#include "cli/dir_lock.h"
#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

class TroubleTest : public CommandTest {
 protected:
  void write_all(const Names& files, const std::string& content = "x") const {
    for (const std::string& name : files) write(name, content);
  }
  void remove(const std::string& name) const { fs::remove_all(source_ + "/" + name); }
};

TEST_F(TroubleTest, WhatCannotBeReadIsReportedAndItsEntriesStay) {
  write_all({"closed", "closed directory/file"});
  ingest(cli::kDone);
  fs::permissions(source_ + "/closed", {});
  fs::permissions(source_ + "/closed directory", {});
  const int ended = end_of(start_child([this] {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    syscall(SYS_capset, &header, none);  // root has to obey permissions, too
    EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 0, 0, 0, 2}));
    return int{HasFailure()};
  }));
  EXPECT_EQ(ended, 0);
  EXPECT_EQ(names(), Names{"closed"});
  EXPECT_EQ(names("/closed directory"), Names{"file"});
  fs::permissions(source_ + "/closed directory", fs::perms::all);
}

TEST_F(TroubleTest, RefusedAndDamagedRowsStayAndTheOthersAreDone) {
  write_all({"a", "refused", "sub/damaged"});
  ingest(cli::kDone);
  rows("/sub", "UPDATE po SET crc = crc + 1");
  // A name that comes from damage only, and would hit the row "a".
  sql("INSERT INTO po SELECT '1/a', poid, content, crc FROM po WHERE basename = 'a'");
  const std::string stay = "SELECT * FROM po WHERE basename <> 'a'";
  const RawRows before = rows("", stay);
  write("a", "22");
  write("refused", "17 bytes of text.");
  remove("sub");
  hooks.record = [](const _po_t* record) { return POGetSize(record) == 17; };
  // Not done: "refused", "1/a", "sub" and what is in it.
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 1, 0, 0, 4}));
  EXPECT_EQ(rows("", stay), before);
  EXPECT_EQ(names("/sub"), Names{"damaged"});
}

TEST_F(TroubleTest, WhatACrashOrDamageLeftIsMended) {
  write_all({"f", "empty/f", "corrupt/f"});
  const std::string corrupt = full(image_) + "/corrupt/po.db", garbage(8192, 'x');
  write_file(full(image_) + "/empty/po.db", "");
  write_file(full(image_) + "/empty/po.db-journal", "rest");
  write_file(corrupt, garbage);
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{2, 0, 0, 0, 1}));
  EXPECT_EQ(read_file(corrupt), garbage);
  fs::remove(corrupt);
  // No checksum sees these, but verify does.
  for (const std::string damage : {"content = CAST(content AS BLOB)", "poid = poid || char(0)"}) {
    sql("UPDATE po SET " + damage);
    expect(cli::kInconsistent, "verify " + root_);
    EXPECT_EQ(ingest(cli::kDone).at(1), 1U);
    expect(cli::kDone, "verify " + root_);
  }
}

TEST_F(TroubleTest, ALockIsNotFooledByADirectoryThatWasDeletedMeanwhile) {
  fs::create_directory(root_);
  hooks.lock = [this] { fs::remove(root_); };
  EXPECT_EQ(cli::DirLock().lock(root_), CR_STATUS_NOT_FOUND);
}

TEST_F(TroubleTest, AListGoesWithTheLastFileOfItsContent) {
  write_all({"1", "2", "3", "4"}, "shared");
  write("own", "own");
  ingest(cli::kDone);
  write("1", "new");
  remove("2");
  ingest(cli::kDone, "--delete");
  expect(cli::kDone, "rm " + root_ + " " + image_ + "/3");
  expect_lists(lists(), {"shared", "own", "new"});
  for (const std::string gone : {"3", "4", "own"}) remove(gone);
  ingest(cli::kDone, "--delete");
  expect_lists(lists(), {"new"});
  sql("UPDATE po SET crc = 0");
  write("1", "newer");
  ingest(cli::kDone);
  expect_lists(lists(), {"newer"});
  EXPECT_EQ(counters(), (Counters{5, 2, 1, 0}));  // counted anew at once
}

// By it, each store or removal would hit the other row.
TEST_F(TroubleTest, NothingIsStoredByAnIndexThatLeadsToOtherRows) {
  write_all({"1", "2"});
  ingest(cli::kDone);
  sql("CREATE TABLE t (name UNIQUE); INSERT INTO t VALUES ('2'), ('1'); PRAGMA writable_schema = 1;"
      "UPDATE sqlite_master SET rootpage = (SELECT rootpage FROM sqlite_master WHERE name = "
      "'sqlite_autoindex_t_1') WHERE name = 'sqlite_autoindex_po_1'");
  const RawRows before = rows("", "SELECT * FROM po NOT INDEXED");
  write("1", "changed");
  remove("2");
  ingest(cli::kIncomplete, "--delete", "its database is damaged and left as it is");
  EXPECT_EQ(rows("", "SELECT * FROM po NOT INDEXED"), before);
}

// What a crash, or somebody's hand, left; the next run closes the gaps.
TEST_F(TroubleTest, GapsBetweenRowsAndListsAreMended) {
  write_all({"1", "2"});
  write("3", "y");
  ingest(cli::kDone);
  for (const std::string damage : {"DELETE FROM utable", "UPDATE utable SET udcids = x'0200'",
                                   "UPDATE utable SET poid = 'a' || substr(poid, 2) WHERE rowid = "
                                   "(SELECT MIN(rowid) FROM utable)"}) {
    raw_sql(lists(), damage);
    ingest(cli::kDone, "--no-content", "\"mended\":2,");
    expect_lists(lists(), {"x", "y"});
  }
  write_file(lists(), std::string(4096, 'x'));
  write("1", "z");
  remove("3");
  EXPECT_EQ(ingest(cli::kIncomplete, "", "and no file to make it from, for 1 content"),
            (Counters{0, 1, 1, 0, 1}));
  expect_lists(lists(), {"x", "z"});
}

TEST_F(TroubleTest, ACrashBetweenTheCommitsIsMendedByTheNextRun) {
  write("changed", "before");
  ingest(cli::kDone);
  write("changed", "after");
  write("new", "new");
  const int ended = end_of(start_child([this] {
    // Not "COMMIT TRANSACTION", that of the lists.
    hooks.sql = [](const auto& sql) { return sql == "COMMIT TRANSACTION;" ? raise(SIGKILL) : 0; };
    return command(ingest_of(source_) + "--threads 1").status;
  }));
  ASSERT_TRUE(WIFSIGNALED(ended));
  expect_lists(lists(), {"after", "new"});
  EXPECT_EQ(names(), Names{"changed"});
  EXPECT_EQ(counters().back(), 1U);
  expect(cli::kInconsistent, "verify " + root_);

  write("changed", "before");
  remove("new");
  ingest(cli::kDone, "", "were counted anew");
  EXPECT_EQ(counters(), (Counters{6, 2, 1, 0}));
  expect_lists(lists(), {"before"});
  expect(cli::kDone, "verify " + root_);
}

}  // namespace
