// What goes wrong in the middle: nothing is lost, and it is told.
#include <linux/capability.h>
#include <signal.h>
#include <sys/syscall.h>

#include "cli/dir_lock.h"
#include "podb/retention.h"
#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

class TroubleTest : public CommandTest {
 protected:
  void write_all(const Names& files, const std::string& content = "x") const {
    for (const std::string& name : files) write(name, content);
  }
};

constexpr const char* kMarked = "17 bytes of text.";

bool is_marked(const _po_t* record) { return POGetSize(record) == 17; }

TEST_F(TroubleTest, WhatAUserMayNotReachIsReportedNotRemovedAndNotTakenForAbsent) {
  write_all({"closed", "closed directory/file", "logs/log"});
  ingest(cli::kDone);
  const std::string closed = source_ + "/closed", logs = source_ + "/logs";
  for (const std::string& path : {closed, closed + " directory"}) fs::permissions(path, {});
  fs::permissions(logs, fs::perms{0555});
  const int ended = end_of(start_child([&] {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    const __user_cap_data_struct none[2] = {};
    syscall(SYS_capset, &header, none);  // root has to obey permissions, too
    EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 0, 1, 0, 2}));
    expect_told("source/closed: cannot be opened: Permission denied");
    expect(cli::kIncomplete, "logs clean " + logs + " --days 5", "/logs: not cleaned");
    fs::permissions(full("5"), {});
    expect(cli::kFailed, "retention set " + root_ + " 5/c/p/f --for 1d", "cannot be reached");
    fs::permissions(full("5"), fs::perms::all);
    return int{HasFailure()};
  }));
  EXPECT_EQ(ended, 0);
  EXPECT_EQ(names(), Names{"closed"});
  EXPECT_EQ(names("/closed directory"), Names{"file"});
  for (const std::string& path : {closed + " directory", logs}) {
    fs::permissions(path, fs::perms::all);
  }
}

TEST_F(TroubleTest, RefusedProtectedAndDamagedRowsStayAndTheOthersAreDone) {
  write_all({"a", "locked", "refused", "sub/damaged"});
  ingest(cli::kDone);
  ASSERT_EQ(SQLitePODB(root_, full(image_)).set_retention("locked", RETENTION_IMMUTABLE, 0), 0);
  rows("/sub", "UPDATE po SET crc = crc + 1");
  // A name that comes from damage only, and would hit the row "a".
  sql("INSERT INTO po SELECT '1/a', poid, content, crc FROM po WHERE basename = 'a'");
  const std::string stay = "SELECT * FROM po WHERE basename <> 'a'";
  const RawRows before = rows("", stay);
  write_all({"a", "locked"}, "22");
  write("refused", kMarked);
  fs::remove_all(source_ + "/sub");
  hooks.record = is_marked;
  // Not done: "locked", "refused", "1/a", "sub" and what is in it.
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{0, 1, 0, 0, 5})) << err_;
  expect_told("locked: left alone: it is protected (status 127");
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
    expect_sound();
  }
}

TEST_F(TroubleTest, ASignalStopsTheRunAndLeavesWholeDirectories) {
  write_all({"1", "a/1", "b/1"});
  write("a/signal", kMarked);
  hooks.record = [](const _po_t* record) { return is_marked(record) && raise(SIGTERM) != 0; };
  EXPECT_EQ(ingest(cli::kFailed, "--threads 1"), (Counters{1, 0, 0, 0, 0}));
  EXPECT_EQ(names("/a"), Names());
  EXPECT_EQ(counters(), (Counters{1, 3, 1, 0}));
  hooks = {};
  EXPECT_EQ(ingest(cli::kDone), (Counters{3, 0, 1, 0, 0}));
}

TEST_F(TroubleTest, ALockIsNotFooledByADirectoryThatWasDeletedMeanwhile) {
  fs::create_directory(root_);
  hooks.lock = [this] { fs::remove(root_); };
  EXPECT_EQ(cli::DirLock().lock(root_), CR_STATUS_NOT_FOUND);
}

}  // namespace
