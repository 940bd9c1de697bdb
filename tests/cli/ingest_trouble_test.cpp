// What goes wrong in the middle: nothing is lost, and it is told.
#include <signal.h>
#include <unistd.h>

#include <thread>

#include "cli/dir_lock.h"
#include "tests/cli/child_process.h"
#include "tests/cli/ingest_fixture.h"

namespace {

namespace fs = std::filesystem;

// Runs without the rights of root, which may read everything.
class AsNobody {
 public:
  explicit AsNobody(const std::string& directory) {
    if (geteuid() != 0) return;
    EXPECT_EQ(lchown(directory.c_str(), kNobody, kNobody), 0);
    for (const auto& entry : fs::recursive_directory_iterator(directory)) {
      EXPECT_EQ(lchown(entry.path().c_str(), kNobody, kNobody), 0);
    }
    EXPECT_EQ(seteuid(kNobody), 0);
  }
  AsNobody(const AsNobody&) = delete;
  AsNobody& operator=(const AsNobody&) = delete;
  ~AsNobody() {
    if (geteuid() != kNobody) return;
    EXPECT_EQ(seteuid(0), 0);
  }

 private:
  static constexpr uid_t kNobody = 65534;
};

bool has_size(const _po_t* record, std::uint64_t size) { return POGetSize(record) == size; }

TEST_F(IngestTest, WhatCannotBeReadIsReportedAndItsEntriesStay) {
  write("closed", "x");
  write("open", "x");
  write("closed directory/file", "x");
  ingest(cli::kDone);
  fs::permissions(source_ + "/closed", fs::perms::none);
  fs::permissions(source_ + "/closed directory", fs::perms::none);
  {
    const AsNobody nobody(temp_.path());
    EXPECT_EQ(ingest(cli::kIncomplete, {"--delete"}), (Counters{0, 1, 0, 0, 2}));  // owner
  }
  EXPECT_NE(err_.find("source/closed: cannot be opened: Permission denied"), std::string::npos)
      << err_;
  EXPECT_EQ(names(), (std::vector<std::string>{"closed", "open"}));
  EXPECT_EQ(names("/closed directory"), std::vector<std::string>{"file"});
  fs::permissions(source_ + "/closed directory", fs::perms::all);
}

TEST_F(IngestTest, ARowThatTheStoreRefusesKeepsTheOldOneAndTheOthersAreDone) {
  write("a", "1");
  write("refused", "old");
  write("z", "1");
  ingest(cli::kDone);
  const std::string old_row = "SELECT * FROM po WHERE basename = 'refused'";
  const RawRows old = rows("", old_row);
  write("a", "22");
  write("refused", "new and 17 bytes.");
  write("refused too", "new and 17 bytes!");
  write("z", "333");
  on_record_printed = [](const _po_t* record) { return has_size(record, 17); };
  EXPECT_EQ(ingest(cli::kIncomplete, {"--delete"}), (Counters{0, 2, 0, 0, 2}));
  EXPECT_NE(err_.find("policy/refused: "), std::string::npos) << err_;
  EXPECT_EQ(rows("", old_row), old);
  EXPECT_EQ(names(), (std::vector<std::string>{"a", "refused", "z"}));
  EXPECT_EQ(counters(), (Counters{2 + 3 + 3, 2, 3, 0}));
}

TEST_F(IngestTest, ProtectedEntriesAreLeftAloneAndDamagedOnesReplacedButNotRemoved) {
  for (const std::string name : {"locked", "sub/locked", "damaged", "sub/damaged"})
    write(name, "x");
  ingest(cli::kDone);
  const auto damage = [&](const std::string& inner) {
    SQLitePODB db(root_, image_ + inner);
    FilePO locked(5);
    ASSERT_EQ(db.get("locked", &locked), CR_STATUS_OK);
    POSetSpecialFlags(locked.record(), SF_IMMUTABLE);
    ASSERT_EQ(db.put(&locked), CR_STATUS_OK);
    rows(inner, "UPDATE po SET crc = crc + 1 WHERE basename = 'damaged'");
  };
  damage("");
  damage("/sub");
  const std::string protected_row = "SELECT * FROM po WHERE basename = 'locked'";
  const RawRows before = rows("", protected_row);
  write("locked", "changed");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{0, 2, 1, 0, 1}));  // unchanged: sub/locked
  damage("/sub");
  fs::remove_all(source_ + "/sub");
  fs::remove(source_ + "/locked");
  EXPECT_EQ(ingest(cli::kIncomplete, {"--delete"}), (Counters{0, 0, 1, 0, 4}));
  EXPECT_NE(err_.find("locked: left alone: it is protected (status 127"), std::string::npos)
      << err_;
  EXPECT_EQ(rows("", protected_row), before);
  EXPECT_EQ(names("/sub"), (std::vector<std::string>{"damaged", "locked"}));
}

// What no checksum sees, verify does; so must what mends it.
TEST_F(IngestTest, DamageThatKeepsTheChecksumIsMendedToo) {
  write("f", "x");
  ingest(cli::kDone);
  const RawRows sound = rows("", "SELECT basename, poid, content, crc FROM po");
  for (const std::string damage :
       {"content = CAST(content AS BLOB)", "poid = CAST(poid AS BLOB)",
        "content = content || char(0) || 'x'", "poid = poid || char(0)"}) {
    SCOPED_TRACE(damage);
    rows("", "UPDATE po SET " + damage);
    EXPECT_EQ(run_command({"verify", root_}).status, cli::kInconsistent);
    EXPECT_EQ(ingest(cli::kDone), (Counters{0, 1, 0, 0, 0}));
    EXPECT_EQ(rows("", "SELECT basename, poid, content, crc FROM po"), sound);
    for (const char* command : {"verify", "check"}) {
      EXPECT_EQ(run_command({command, root_}).status, cli::kDone);
    }
  }
}

TEST_F(IngestTest, WhatACrashLeftInADirectoryIsMended) {
  for (const std::string name : {"empty/f", "version/f", "corrupt/f", "tableless/f"})
    write(name, "x");
  put_file(image_ + "/empty/po.db", "");
  put_file(image_ + "/empty/po.db-journal", "rest");
  put_file(image_ + "/corrupt/po.db", std::string(8192, 'x'));
  put_file(image_ + "/tableless/po.db", "");
  rows("/tableless", "PRAGMA user_version = 1");
  EXPECT_EQ(ingest(cli::kIncomplete), (Counters{2, 0, 0, 0, 2}));
  rows("/version", "DELETE FROM registry");
  const Outcome outcome = run();
  EXPECT_EQ(outcome.status, cli::kIncomplete);
  EXPECT_EQ(outcome.json().back()["mended"], 1);
  EXPECT_EQ(names("/empty"), std::vector<std::string>{"f"});
  EXPECT_EQ(rows("/version", "SELECT * FROM registry"), (RawRows{{"db_version", "1"}}));
  EXPECT_EQ(read(image_ + "/corrupt/po.db"), std::string(8192, 'x'));
}

TEST_F(IngestTest, ASignalStopsTheRunAndLeavesWholeDirectories) {
  for (const std::string name : {"1", "a/1", "a/z", "b/1"}) write(name, "x");
  write("a/signal", "17 bytes of text.");
  on_record_printed = [](const _po_t* record) {
    if (has_size(record, 17)) raise(SIGTERM);
    return false;
  };
  EXPECT_EQ(ingest(cli::kFailed, {"--threads", "1"}), (Counters{1, 0, 0, 0, 0}));
  EXPECT_EQ(names("/a"), std::vector<std::string>{});
  EXPECT_FALSE(fs::exists(image_ + "/b"));
  EXPECT_EQ(counters(), (Counters{1, 3, 1, 0}));
  on_record_printed = nullptr;
  EXPECT_EQ(ingest(cli::kDone), (Counters{4, 0, 1, 0, 0}));
}

TEST_F(IngestTest, CountersAreMendedAfterAKilledRun) {
  for (const std::string name : {"1", "2", "a/1", "b/1"}) write(name, "12345");
  write("b/killer", "17 bytes of text.");
  const int ended = end_of(start_child([this] {
    on_record_printed = [](const _po_t* record) {
      if (has_size(record, 17)) raise(SIGKILL);
      return false;
    };
    return run({"--threads", "1"}).status;
  }));
  ASSERT_TRUE(WIFSIGNALED(ended));
  EXPECT_EQ(counters(), (Counters{0, 0, 0, 1}));
  EXPECT_EQ(ingest(cli::kDone), (Counters{2, 0, 3, 0, 0}));
  EXPECT_NE(err_.find("were counted anew"), std::string::npos) << err_;
  EXPECT_EQ(counters(), (Counters{37, 4, 5, 0}));
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
