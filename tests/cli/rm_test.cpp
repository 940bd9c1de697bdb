#include "tests/cli/read_fixture.h"

namespace {

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
  expect(cli::kDone, rm_ + "/empty");
  expect(cli::kDone, rm_ + "/gone");
  EXPECT_FALSE(fs::exists(full(image_ + "/empty")));
  EXPECT_EQ(names(), (Names{"immutable", "kept"}));
  EXPECT_EQ(counters(), (Counters{123, 1, 2, 0}));
}

TEST_F(RemoveTest, WhatMustStayIsRefusedWithAReasonAndNothingChanges) {
  add_file("damaged");
  sql("UPDATE po SET crc = 0 WHERE basename = 'damaged'");
  add_directory(image_ + "/immutable-dir", SF_IMMUTABLE);
  for (const char* odd : {"/foreign/file", "/corrupt/po.db", "/broken/__dirpo__"}) {
    add_directory(fs::path(image_ + odd).parent_path());
    write_file(full(image_ + odd), std::string(5000, 'x'));
  }
  const auto before = snapshot(root_);
  const std::pair<const char*, const char*> reasons[] = {
      {"/none", "no such entry"},      {"/immutable", "immutable"},   {"/damaged", "damaged"},
      {"/immutable-dir", "immutable"}, {"/broken", "damaged"},        {"", "directories in it"},
      {"/foreign", "not the catalog"}, {"/corrupt", "cannot be read"}};
  for (const auto& [path, reason] : reasons) expect(cli::kFailed, rm_ + path, reason);
  auto after = snapshot(root_);
  after.erase(full("5/__dsinfo__.lock"));
  EXPECT_EQ(after, before);
}

// By the number that verify names: what has no name, and no file that could replace it.
TEST_F(RemoveTest, DamagedRowsGoByTheirNumberAndNoOthers) {
  sql("UPDATE po SET poid = CAST(poid AS BLOB) WHERE basename = 'immutable'");
  const std::string number = "SELECT rowid FROM po WHERE basename = ",
                    row = rm_ + " --damaged-row ";
  expect(cli::kFailed, row + sql(number + "'kept'"), "is sound");
  expect(cli::kFailed, row + sql(number + "'immutable'"), "protected");
  for (const std::string name : {"'vanished'", "'a/kept'", "'kept' || char(0)", "NULL"}) {
    sql("INSERT INTO po SELECT " + name + ", poid, content, 0 FROM po WHERE basename = 'kept'");
    expect(cli::kDone, row + sql("SELECT MAX(rowid) FROM po"));
  }
  EXPECT_EQ(names(), (Names{"immutable", "kept"}));
}

}  // namespace
