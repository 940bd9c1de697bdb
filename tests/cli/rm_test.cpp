#include "tests/cli/read_fixture.h"

namespace {

class RemoveTest : public CatalogTest {
 protected:
  RemoveTest() {
    add_file("kept", file_fields("", make_poid(1), 100));
    add_file("gone", file_fields("", make_poid(2), 23));
  }
  void add_immutable() {
    refhost::RecordFields immutable = file_fields("", make_poid(3), 5);
    immutable.special_flags = SF_IMMUTABLE;
    add_file("immutable", immutable);
  }
  const std::string rm_ = "rm " + root_ + " ";
};

TEST_F(RemoveTest, FilesAndEmptyDirectoriesGoAndTheCountersFollow) {
  add_directory(image_ + "/empty");
  write_file(database(image_ + "/empty"), "");   // the leftover of a crash
  fs::create_directory(full(image_ + "/bare"));  // not counted: it has no record
  const std::vector<std::pair<std::string, Counters>> steps = {
      {"/bare", {123, 2, 2, 0}}, {"/empty", {123, 1, 2, 0}}, {"/gone", {100, 1, 1, 0}}};
  for (const auto& [path, left] : steps) {
    expect(cli::kDone, rm_ + image_ + path);
    EXPECT_EQ(counters(), left);
    EXPECT_FALSE(fs::exists(full(image_ + path)));
  }
  EXPECT_EQ(names(), Names{"kept"});
}

TEST_F(RemoveTest, WhatMustStayIsRefusedWithAReasonAndNothingChanges) {
  add_immutable();
  add_file("damaged");
  sql("UPDATE po SET crc = 0 WHERE basename = 'damaged'");
  const std::string below = image_ + "/";
  add_directory(below + "immutable-dir", SF_IMMUTABLE);
  add_directory(below + "parent/child");
  for (const char* odd : {"foreign/file", "corrupt/po.db", "broken/__dirpo__"}) {
    add_directory(fs::path(below + odd).parent_path());
    write_file(full(below + odd), std::string(5000, 'x'));
  }
  const auto before = snapshot(root_);
  expect(cli::kFailed, rm_ + below + "none", "no such entry");
  expect(cli::kFailed, rm_ + below + "immutable", "immutable");
  expect(cli::kFailed, rm_ + below + "damaged", "damaged");
  expect(cli::kFailed, rm_ + below + "immutable-dir", "immutable");
  expect(cli::kFailed, rm_ + below + "parent", "directories in it");
  expect(cli::kFailed, rm_ + below + "foreign", "not the catalog's");
  expect(cli::kFailed, rm_ + below + "corrupt", "cannot be read");
  expect(cli::kFailed, rm_ + below + "broken", "damaged");
  expect(cli::kFailed, rm_ + image_, "directories in it");
  expect(cli::kFailed, rm_ + "5", "data store");
  expect(cli::kUsage, rm_ + below + "../policy", "not a path");
  auto after = snapshot(root_);
  after.erase(full("5/__dsinfo__.lock"));
  EXPECT_EQ(after, before);
  for (const char* name : {"parent", "immutable-dir", "foreign", "corrupt", "broken"}) {
    fs::remove_all(full(below + name));
  }
  expect(cli::kFailed, rm_ + image_, "files in it");
}

// By the number that verify names: what has no name, and no file that could replace it.
TEST_F(RemoveTest, DamagedRowsGoByTheirNumberAndNoOthers) {
  add_immutable();
  sql("UPDATE po SET poid = CAST(poid AS BLOB) WHERE basename = 'immutable'");
  const std::string number = "SELECT rowid FROM po WHERE basename = ", rm = rm_ + image_;
  expect(cli::kFailed, rm + " --damaged-row " + sql(number + "'kept'"), "is sound");
  expect(cli::kFailed, rm + " --damaged-row " + sql(number + "'immutable'"), "protected");
  expect(cli::kFailed, rm + " --damaged-row 4711", "no row");
  for (const std::string name :
       {"'vanished'", "'a/b'", "'nul' || char(0)", "x'61'", "NULL", "''"}) {
    sql("INSERT INTO po SELECT " + name + ", poid, content, 0 FROM po WHERE basename = 'kept'");
    expect(cli::kDone, rm + " --damaged-row " + sql("SELECT MAX(rowid) FROM po"));
  }
  EXPECT_EQ(names(), (Names{"gone", "immutable", "kept"}));
  EXPECT_EQ(counters(), (Counters{128, 1, 3, 0}));
}

}  // namespace
