// What rm removes, and what every command leaves alone.
#include "tests/cli/read_fixture.h"

namespace {

// Flags, and the end of the lock from now on; 0 for none.
using State = std::pair<std::uint32_t, std::int64_t>;
const State kExpired = {SF_RETENTION_LOCK, -1000};
const State kStates[] = {{0, 0},
                         kExpired,
                         {SF_IMMUTABLE, 0},
                         {SF_RETENTION_LOCK, 1000},
                         {kExpired.first | SF_CLOUDLSU, 1000}};

// One entry "img", and what can be done to it.
class ProtectionTest : public CatalogTest {
 protected:
  ProtectionTest() {
    write("new/img", "content");
    fs::create_directory(source_ + "/none");
    write_file(temp_.path("journal"), "UPDATE po SET poid = 'changed';");
  }
  // The entry in this state; the command ends with this status, and changes it or does not.
  void expect_change(const State& state, bool change, int status, const std::string& command) {
    fs::remove(database(image_));
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7);
    const std::int64_t now = time(nullptr);
    fields.special_flags = state.first;
    fields.ctime = static_cast<std::uint64_t>(now - 100000);
    if (state.second != 0) fields.atime = static_cast<std::uint64_t>(now + state.second);
    add_file("img", fields);
    const std::string row = "SELECT group_concat(basename || poid || crc) FROM po", old = sql(row);
    expect(status, command);
    EXPECT_EQ(sql(row) != old, change) << command << " in state " << state.first;
  }

  const std::string replace_ = ingest_of(source_ + "/new"), rm_ = "rm " + entry_;
  const std::string set_ = "retention set " + entry_ + "--for ";
  const std::string apply_ = "journal apply " + database(image_) + " " + temp_.path("journal");
};

TEST_F(ProtectionTest, ProtectedEntriesAreLeftAloneAndOthersAreNot) {
  // What happens per state: changed, not changed, or refused with that exit status.
  const std::pair<std::string, const char*> operations[] = {
      {replace_, "yy333"},
      {ingest_of(source_ + "/none") + "--delete", "yy333"},
      {rm_, "yy111"},
      {set_ + "2000s", "yyyyy"},
      {set_ + "500s", "yyy55"},
      {set_ + "1d --cloud", "yyy55"},
      {apply_, "yy111"},
      {apply_ + " --line-by-line", "yy111"},
      {apply_ + " --dry-run --force-locked", "nnnnn"},
      {apply_ + " --force-locked", "yyyyy"},
  };
  for (auto [command, outcome] : operations) {
    for (const State& state : kStates) {
      const int status = *outcome == 'y' || *outcome == 'n' ? cli::kDone : *outcome - '0';
      expect_change(state, *outcome++ == 'y', status, command);
    }
  }
  hooks.clock = false;  // every lock counts
  for (const std::string& command : {rm_, set_ + "1h", apply_}) {
    expect_change(kExpired, false, cli::kFailed, command);
  }
  sql("UPDATE po SET crc = 0");  // nobody knows what protects it
  expect(cli::kFailed, apply_);
}

class RemoveTest : public CatalogTest {
 protected:
  RemoveTest() {
    add_file("kept", file_fields("", make_poid(1), 100));
    refhost::RecordFields immutable = file_fields("", make_poid(3), 23);
    immutable.special_flags = SF_IMMUTABLE;
    add_file("immutable", immutable);
  }
  const std::string rm_ = "rm " + root_ + " " + image_;
};

TEST_F(RemoveTest, FilesAndEmptyDirectoriesGoAndTheCountersFollow) {
  add_file("gone", file_fields("", make_poid(2), 23));
  add_directory(image_ + "/empty");
  write_file(database(image_ + "/empty"), "");  // the leftover of a crash
  for (const std::string path : {"/empty", "/gone"}) expect(cli::kDone, rm_ + path);
  EXPECT_FALSE(fs::exists(full(image_ + "/empty")));
  EXPECT_EQ(names(), (Names{"immutable", "kept"}));
  EXPECT_EQ(counters(), (Counters{123, 1, 2, 0}));
}

TEST_F(RemoveTest, WhatMustStayIsRefusedWithAReasonAndNothingChanges) {
  add_file("damaged");
  sql("UPDATE po SET crc = 0 WHERE basename = 'damaged'");
  for (const char* odd : {"/foreign/file", "/corrupt/po.db", "/broken/__dirpo__"}) {
    add_directory(fs::path(image_ + odd).parent_path());
    write_file(full(image_ + odd), std::string(5000, 'x'));
  }
  const auto before = snapshot(root_);
  const std::pair<const char*, const char*> reasons[] = {
      {"/none", "no such entry"}, {"/immutable", "immutable"},     {"/damaged", "damaged"},
      {"/broken", "damaged"},     {"/foreign", "not the catalog"}, {"/corrupt", "cannot be read"},
      {"", "directories in it"}};
  for (const auto& [path, reason] : reasons) expect(cli::kFailed, rm_ + path, reason);
  auto after = snapshot(root_);
  after.erase(full("5/__dsinfo__.lock"));
  EXPECT_EQ(after, before);
}

// By the number that verify names: what has no name, and no file that could replace it.
TEST_F(RemoveTest, DamagedRowsGoByTheirNumberAndNoOthers) {
  sql("UPDATE po SET poid = CAST(poid AS BLOB) WHERE basename = 'immutable'");
  const std::string row = rm_ + " --damaged-row ", rowid = "SELECT rowid FROM po WHERE basename = ";
  expect(cli::kFailed, row + sql(rowid + "'kept'"), "is sound");
  expect(cli::kFailed, row + sql(rowid + "'immutable'"), "protected");
  for (const std::string name : {"'a/kept'", "'kept' || char(0)", "NULL"}) {
    sql("INSERT INTO po SELECT " + name + ", poid, content, 0 FROM po WHERE basename = 'kept'");
    expect(cli::kDone, row + sql("SELECT MAX(rowid) FROM po"));
  }
  EXPECT_EQ(names(), (Names{"immutable", "kept"}));
}

}  // namespace
