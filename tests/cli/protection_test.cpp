#include "podb/retention.h"
#include "tests/cli/read_fixture.h"

namespace {

struct State {
  const char* name;
  std::uint32_t flags;
  std::int64_t lock;  // from now on; 0 for none
};
const State kStates[] = {
    {"plain", 0, 0},
    {"immutable", SF_IMMUTABLE, 0},
    {"locked", SF_RETENTION_LOCK, 1000},
    {"expired", SF_RETENTION_LOCK, -1000},
    {"locked on cloud storage", SF_RETENTION_LOCK | SF_CLOUDLSU, 1000},
    {"immutable and locked", SF_IMMUTABLE | SF_RETENTION_LOCK, 1000},
};

// One entry "img", and what can be done to it.
class ProtectionTest : public KeepTest {
 protected:
  ProtectionTest() {
    write("new/img", "content");
    fs::create_directory(source_ + "/none");
    write_file(journal_, "UPDATE po SET poid = 'changed';");
  }

  void store(const State& state) {
    fs::remove(database(image_));
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7);
    const std::int64_t now = time(nullptr);
    fields.special_flags = state.flags;
    fields.ctime = static_cast<std::uint64_t>(now - 100000);
    if (state.lock != 0) fields.atime = static_cast<std::uint64_t>(now + state.lock);
    add_file("img", fields);
  }
  std::string stored() {
    return sql("SELECT ifnull(group_concat(basename || poid || crc), '') FROM po");
  }

  int update(char mod_type, std::string action) {
    FilePO entry(root_, full(image_) + "/img", 5);
    refhost::RecordFields fields = refhost::get_fields(entry.record());
    fields.mod_type = mod_type;
    refhost::set_fields(entry.record(), fields);
    ds_info_t counters{};
    std::vector<PO*> removed;
    std::vector<PO*> with_containers;
    SQLitePODB db(root_, full(image_));
    entry.update(&db, counters, removed, with_containers, action);
    for (const PO* old : removed) delete old;
    return -1;
  }
  int lock(unsigned long flags, long period) {
    SQLitePODB(root_, full(image_)).set_retention("img", flags, period);
    return -1;
  }
  static int status(const std::string& line) { return command(line).status; }
  int set(const std::string& how) const {
    return status("retention set " + entry_ + "--for " + how);
  }
  int ingest(const std::string& source) const {
    return status(ingest_of(source_ + "/" + source) + "--delete");
  }
  int journal(const std::string& how, const std::string& file = "po.db") const {
    return status("journal apply " + full(image_) + "/" + file + " " + journal_ + " " + how);
  }
  int rm() const { return status("rm " + entry_); }

  const std::string journal_ = temp_.path("journal");
};

TEST_F(ProtectionTest, TheLibraryChangesWhatItMayAndTheCommandLeavesProtectedEntriesAlone) {
  const struct {
    const char* name;
    std::function<int()> run;  // the command's exit status; -1 from the library
    const char* outcome;       // per state: changed, not changed, or refused with that exit status
  } operations[] = {
      {"library: replace", [&] { return update('N', ""); }, "ynyyyn"},
      {"library: delete", [&] { return update('D', ""); }, "yyyyyy"},
      {"library: checked delete", [&] { return update('D', "action_imgchk"); }, "ynyyyn"},
      {"library: later lock", [&] { return lock(RETENTION_LOCK, 2000); }, "yyyyyy"},
      {"library: earlier lock", [&] { return lock(RETENTION_LOCK, 500); }, "yynynn"},
      {"library: flag", [&] { return lock(RETENTION_IMMUTABLE, 0); }, "ynyyyn"},
      {"library: cloud", [&] { return lock(RETENTION_LOCK | RETENTION_CLOUD, 500); }, "yyyyyy"},
      {"replace", [&] { return ingest("new"); }, "y33y33"},
      {"delete", [&] { return ingest("none"); }, "y33y33"},
      {"rm", [&] { return rm(); }, "y11y11"},
      {"later lock", [&] { return set("2000s"); }, "yyyyyy"},
      {"earlier lock", [&] { return set("500s"); }, "yy5y55"},
      {"cloud, later", [&] { return set("3d --cloud"); }, "yyyyyy"},
      {"cloud, earlier", [&] { return set("1d --cloud"); }, "yy5y55"},
      {"journal", [&] { return journal(""); }, "y11y11"},
      {"journal, line by line", [&] { return journal("--line-by-line"); }, "y11y11"},
      {"journal, tried", [&] { return journal("--dry-run --force-locked"); }, "nnnnnn"},
      {"journal, forced", [&] { return journal("--force-locked"); }, "yyyyyy"},
  };
  for (const auto& operation : operations) {
    for (std::size_t i = 0; i < std::size(kStates); ++i) {
      SCOPED_TRACE(std::string(operation.name) + ": " + kStates[i].name);
      store(kStates[i]);
      const std::string before = stored();
      const int status = operation.run();
      const char outcome = operation.outcome[i];
      EXPECT_EQ(stored() == before, outcome != 'y');
      const int expected = outcome == 'y' || outcome == 'n' ? 0 : outcome - '0';
      EXPECT_TRUE(status == -1 || status == expected) << status;
    }
  }
}

TEST_F(ProtectionTest, WithoutAClockEveryLockCounts) {
  store(kStates[3]);
  hooks.clock = false;
  const std::string before = stored();
  EXPECT_EQ(rm(), cli::kFailed);
  EXPECT_EQ(ingest("new"), cli::kIncomplete);
  EXPECT_EQ(set("1h"), cli::kFailed);
  EXPECT_EQ(set("1s --cloud"), cli::kLockInForce);
  EXPECT_EQ(journal(""), cli::kFailed);
  EXPECT_EQ(stored(), before);
}

TEST_F(ProtectionTest, AJournalIsRefusedBesideEntriesThatNeedTheirListsAndOnDamagedOnes) {
  store(kStates[2]);
  write_file(lists(), "");
  raw_sql(lists(), "CREATE TABLE po (poid TEXT)");
  EXPECT_EQ(journal("", "ul.db"), cli::kFailed);
  store(kStates[0]);
  EXPECT_EQ(journal("", "ul.db"), cli::kDone);
  sql("UPDATE po SET crc = 0");
  EXPECT_EQ(journal(""), cli::kFailed);
}

}  // namespace
