#include "tests/cli/read_fixture.h"

namespace {

struct State {
  std::uint32_t flags;
  std::int64_t lock;  // from now on; 0 for none
};
// Plain, immutable, locked, with a lock that ended, on cloud storage.
const State kStates[] = {{0, 0},
                         {SF_IMMUTABLE, 0},
                         {SF_RETENTION_LOCK, 1000},
                         {SF_RETENTION_LOCK, -1000},
                         {SF_RETENTION_LOCK | SF_CLOUDLSU, 1000}};

// One entry "img", and what can be done to it.
class ProtectionTest : public KeepTest {
 protected:
  ProtectionTest() {
    write("new/img", "content");
    fs::create_directory(source_ + "/none");
    write_file(temp_.path("journal"), "UPDATE po SET poid = 'changed';");
  }
  std::string journal_on(const std::string& file) const {
    return "journal apply " + full(image_) + "/" + file + " " + temp_.path("journal");
  }
  // The entry in this state; the command ends with this status, and changes it or does not.
  void expect_change(const State& state, bool change, int status, const std::string& command) {
    fs::remove(database(image_));
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7);
    const std::int64_t now = time(nullptr);
    fields.special_flags = state.flags;
    fields.ctime = static_cast<std::uint64_t>(now - 100000);
    if (state.lock != 0) fields.atime = static_cast<std::uint64_t>(now + state.lock);
    add_file("img", fields);
    const std::string row = "SELECT group_concat(basename || poid || crc) FROM po", old = sql(row);
    expect(status, command);
    EXPECT_EQ(sql(row) != old, change) << command << " in state " << &state - kStates;
  }

  const std::string replace_ = ingest_of(source_ + "/new"), rm_ = "rm " + entry_;
  const std::string set_ = "retention set " + entry_ + "--for ", journal_ = journal_on("po.db");
};

TEST_F(ProtectionTest, ProtectedEntriesAreLeftAloneAndOthersAreNot) {
  const struct {
    std::string command;
    const char* outcome;  // per state: changed, not changed, or refused with that exit status
  } operations[] = {
      {replace_, "y33y3"},
      {ingest_of(source_ + "/none") + "--delete", "y33y3"},
      {rm_, "y11y1"},
      {set_ + "2000s", "yyyyy"},
      {set_ + "500s", "yy5y5"},
      {set_ + "1d --cloud", "yy5y5"},
      {journal_, "y11y1"},
      {journal_ + " --line-by-line", "y11y1"},
      {journal_ + " --dry-run --force-locked", "nnnnn"},
      {journal_ + " --force-locked", "yyyyy"},
  };
  for (const auto& operation : operations) {
    for (const State& state : kStates) {
      const char outcome = operation.outcome[&state - kStates];
      const int status = outcome == 'y' || outcome == 'n' ? cli::kDone : outcome - '0';
      expect_change(state, outcome == 'y', status, operation.command);
    }
  }
  hooks.clock = false;  // every lock counts
  expect_change(kStates[3], false, cli::kIncomplete, replace_);
  for (const std::string& command : {rm_, set_ + "1h", journal_}) {
    expect_change(kStates[3], false, cli::kFailed, command);
  }
}

TEST_F(ProtectionTest, AJournalIsRefusedBesideEntriesThatNeedTheirListsAndOnDamagedOnes) {
  write_file(lists(), "");
  raw_sql(lists(), "CREATE TABLE po (poid TEXT)");
  expect_change(kStates[2], false, cli::kFailed, journal_on("ul.db"));
  expect_change(kStates[0], false, cli::kDone, journal_on("ul.db"));
  sql("UPDATE po SET crc = 0");
  expect(cli::kFailed, journal_);
}

}  // namespace
