// What goes wrong in the middle: nothing is lost, and it is told.
#include <signal.h>

#include <thread>

#include "cli/dir_lock.h"
#include "podb/retention.h"
#include "tests/cli/read_fixture.h"

namespace {

class IngestTroubleTest : public CommandTest {
 protected:
  void write_all(const Names& files, const std::string& content = "x") const {
    for (const std::string& name : files) write(name, content);
  }
};

constexpr const char* kMarked = "17 bytes of text.";

bool is_marked(const _po_t* record) { return POGetSize(record) == 17; }

TEST_F(IngestTroubleTest, WhatCannotBeReadIsReportedAndItsEntriesStay) {
  write_all({"closed", "open", "closed directory/file"});
  ingest(cli::kDone);
  fs::permissions(source_ + "/closed", fs::perms::none);
  fs::permissions(source_ + "/closed directory", fs::perms::none);
  as_nobody(temp_.path(), [this] {  // who owns "open" now
    EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 1, 0, 0, 2}));
  });
  expect_told("source/closed: cannot be opened: Permission denied");
  EXPECT_EQ(names(), (Names{"closed", "open"}));
  EXPECT_EQ(names("/closed directory"), Names{"file"});
  fs::permissions(source_ + "/closed directory", fs::perms::all);
}

TEST_F(IngestTroubleTest, ARowThatTheStoreRefusesKeepsTheOldOneAndTheOthersAreDone) {
  write_all({"a", "refused", "z"}, "1");
  ingest(cli::kDone);
  const std::string old_row = "SELECT * FROM po WHERE basename = 'refused'";
  const RawRows old = rows("", old_row);
  write("a", "22");
  write_all({"refused", "refused too"}, kMarked);
  write("z", "333");
  hooks.record = is_marked;
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 2, 0, 0, 2}));
  expect_told("policy/refused: ");
  EXPECT_EQ(rows("", old_row), old);
  EXPECT_EQ(names(), (Names{"a", "refused", "z"}));
  EXPECT_EQ(counters(), (Counters{2 + 1 + 3, 2, 3, 0}));
}

TEST_F(IngestTroubleTest, ProtectedEntriesAreLeftAloneAndDamagedOnesReplacedButNotRemoved) {
  write_all({"locked", "sub/locked", "damaged", "sub/damaged"});
  ingest(cli::kDone);
  for (const std::string below : {"", "/sub"}) {
    ASSERT_EQ(
        SQLitePODB(root_, full(image_) + below).set_retention("locked", RETENTION_IMMUTABLE, 0), 0);
  }
  const std::string damage = "UPDATE po SET crc = crc + 1 WHERE basename = 'damaged'";
  rows("", damage), rows("/sub", damage);
  const std::string protected_row = "SELECT * FROM po WHERE basename = 'locked'";
  const RawRows before = rows("", protected_row);
  write("locked", "changed");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 2, 1, 0, 1}));  // unchanged: sub/locked
  rows("/sub", damage);
  fs::remove_all(source_ + "/sub");
  fs::remove(source_ + "/locked");
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 0, 1, 0, 4}));
  expect_told("locked: left alone: it is protected (status 127");
  EXPECT_EQ(rows("", protected_row), before);
  EXPECT_EQ(names("/sub"), (Names{"damaged", "locked"}));
}

// What no checksum sees, verify does; so must what mends it.
TEST_F(IngestTroubleTest, DamageThatKeepsTheChecksumIsMendedToo) {
  write("f", "x");
  ingest(cli::kDone);
  const RawRows sound = rows("", "SELECT basename, poid, content, crc FROM po");
  for (const std::string damage :
       {"content = CAST(content AS BLOB)", "poid = CAST(poid AS BLOB)",
        "content = content || char(0) || 'x'", "poid = poid || char(0)"}) {
    SCOPED_TRACE(damage);
    sql("UPDATE po SET " + damage);
    expect(cli::kInconsistent, "verify " + root_);
    EXPECT_EQ(ingest(cli::kDone), (Counters{0, 1, 0, 0, 0}));
    EXPECT_EQ(rows("", "SELECT basename, poid, content, crc FROM po"), sound);
    expect_sound();
    expect(cli::kDone, "check " + root_);
  }
}

TEST_F(IngestTroubleTest, WhatACrashLeftInADirectoryIsMended) {
  write_all({"empty/f", "version/f", "corrupt/f", "tableless/f"});
  const std::string image = full(image_);
  write_file(image + "/empty/po.db", "");
  write_file(image + "/empty/po.db-journal", "rest");
  write_file(image + "/corrupt/po.db", std::string(8192, 'x'));
  write_file(image + "/tableless/po.db", "");
  rows("/tableless", "PRAGMA user_version = 1");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{2, 0, 0, 0, 2}));
  rows("/version", "DELETE FROM registry");
  EXPECT_EQ(run().json().back()["mended"], 1);
  EXPECT_EQ(names("/empty"), Names{"f"});
  EXPECT_EQ(rows("/version", "SELECT * FROM registry"), (RawRows{{"db_version", "1"}}));
  EXPECT_EQ(read_file(image + "/corrupt/po.db"), std::string(8192, 'x'));
}

TEST_F(IngestTroubleTest, ASignalStopsTheRunAndLeavesWholeDirectories) {
  write_all({"1", "a/1", "a/z", "b/1"});
  write("a/signal", kMarked);
  hooks.record = [](const _po_t* record) { return is_marked(record) && raise(SIGTERM) != 0; };
  EXPECT_EQ(ingest(cli::kFailed, "--threads 1"), (Counters{1, 0, 0, 0, 0}));
  EXPECT_EQ(names("/a"), Names());
  EXPECT_FALSE(fs::exists(full(image_ + "/b")));
  EXPECT_EQ(counters(), (Counters{1, 3, 1, 0}));
  hooks = {};
  EXPECT_EQ(ingest(cli::kDone), (Counters{4, 0, 1, 0, 0}));
}

TEST(DirLock, IsNotFooledByADirectoryThatWasDeletedMeanwhile) {
  const TempDir temp;
  const std::string directory = temp.path("a");
  fs::create_directory(directory);
  cli::DirLock holder;
  ASSERT_EQ(holder.lock(directory), CR_STATUS_OK);
  cr_status_t waited = CR_STATUS_NONE;
  std::thread waiter([&] { waited = cli::DirLock().lock(directory); });
  fs::remove(directory);
  holder.unlock();
  waiter.join();
  EXPECT_EQ(waited, CR_STATUS_NOT_FOUND);
}

}  // namespace
