#include <algorithm>

#include "tests/cli/read_fixture.h"
#include "tests/support/child_process.h"

namespace {

class VerifyTest : public CatalogTest {
 protected:
  VerifyTest() {
    add_file("alpha");
    add_file("beta", file_fields("", make_poid(1), 1000));
    add_file("gamma");
    sound_ = read_file(file_);
  }

  Outcome verify() const { return run_command({"--json", "verify", root_}); }

  // Exactly one finding, about this row or file, for this reason.
  void expect_one_finding(const std::string& key, const std::string& value,
                          const std::string& reason) const {
    const Outcome outcome = verify();
    EXPECT_EQ(outcome.status, cli::kInconsistent);
    const auto lines = outcome.json();
    ASSERT_EQ(lines.size(), 2U) << reason << ": " << outcome.out;
    EXPECT_EQ(lines[0].value(key, ""), value) << outcome.out;
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << outcome.out;
  }

  const std::string file_ = database(image_);
  std::string sound_;
};

TEST_F(VerifyTest, EveryKindOfDamageToARowIsNamed) {
  // Under a checksum that is right.
  const auto covered = [](const std::string& poid, const std::string& content) {
    const auto crc = SQLitePODB::calculate_crc("beta", poid.c_str(), content.c_str());
    return "poid = '" + poid + "', content = '" + content + "', crc = " + std::to_string(crc);
  };
  refhost::RecordFields fields = file_fields("", make_poid(1), 7, "");
  const std::string sound = text_of(fields);
  fields.dsid = 5;
  const std::string placed = text_of(fields);
  fields = dir_fields("", "");
  fields.poid = make_poid(1);
  const std::string directory = text_of(fields);
  const struct {
    std::string change, reason, name = "beta";
  } cases[] = {
      {"poid = NULL", "poid is NULL"},
      {"content = NULL", "content is NULL"},
      {"crc = NULL", "crc is NULL"},
      {"basename = NULL", "basename is NULL", ""},
      {"basename = CAST('beta' AS BLOB)", "basename is a blob"},
      {"poid = CAST(poid AS BLOB)", "poid is a blob"},
      {"content = CAST(content AS BLOB)", "content is a blob"},
      {"crc = crc || 'x'", "crc is text"},
      {"crc = crc + 0.5", "crc is a real number"},
      {"crc = crc + 4294967296", "the checksum is"},
      {"poid = poid || char(0) || 'x'", "poid holds a NUL"},
      {"content = content || char(0)", "content holds a NUL"},
      {"content = ''", "does not parse"},
      {"basename = ''", "basename is empty", ""},
      {"basename = 'a/b'", "basename holds a '/'", "a/b"},
      {"basename = '..'", "no name of a file", ".."},
      {"rowid = 9223372036854775807, poid = ''", "the checksum is"},
      {"rowid = -9223372036854775807, poid = ''", "the checksum is"},
      {covered(make_poid(1), placed), "holds a location"},
      {covered(make_poid(1), directory), "type is 1, not 0"},
      {covered("no poid", text_of(file_fields("", "no poid", 7, ""))), "POID is not valid"},
      {covered(make_poid(2), sound), "poid is not that of the record"},
      {covered(make_poid(1), sound + "|"), "does not parse"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.change);
    write_file(file_, sound_);
    sql("UPDATE po SET " + c.change + " WHERE basename = 'beta'");
    expect_one_finding("row", c.name, c.reason);
  }
}

TEST_F(VerifyTest, EveryChangedByteOfTheFileThatHoldsARowIsFound) {
  const std::size_t poid = sound_.find("beta" + make_poid(1));
  ASSERT_NE(poid, std::string::npos);
  const std::size_t end = sound_.find("|64|0|0", poid) + 7 + 4;  // the checksum follows
  for (std::size_t at = poid - 9; at < end; ++at) {  // length, rowid and the columns' types first
    std::string damaged = sound_;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    write_file(file_, damaged);
    EXPECT_EQ(verify().status, cli::kInconsistent) << "byte " << at - poid;
  }
}

TEST_F(VerifyTest, DamageToTheDatabaseIsOneFindingAndTheOtherDatabasesAreStillChecked) {
  write_file(database(image_ + "/zz"), "");  // the finding that must always be there, too
  const auto expect_finding = [&](const std::string& reason) {
    const Outcome outcome = expect(cli::kInconsistent, "verify " + root_, reason);
    EXPECT_NE(outcome.out.find("policy/zz/po.db"), std::string::npos) << outcome.out;
    fs::remove(file_);
    write_file(file_, sound_);
  };
  const std::vector<std::pair<std::string, std::string>> contents = {
      {"", "is empty"},
      {std::string(5000, 'x'), "not a database"},
      {sound_.substr(0, sound_.size() / 2), "malformed"},
      {sound_.substr(0, 50), "malformed"}};
  for (const auto& [content, reason] : contents) {
    write_file(file_, content);
    expect_finding(reason);
  }
  const std::pair<const char*, const char*> changes[] = {
      {"DELETE FROM registry", "db_version is missing"},
      {"UPDATE registry SET value = '2'", "db_version is 2"},
      {"UPDATE registry SET value = x'31'", "not a text"},
      {"DROP INDEX po_poid", "index po_poid is missing"},
      {"DROP INDEX po_poid; CREATE INDEX po_poid ON po(crc)", "defined differently"},
      {"PRAGMA writable_schema = ON; UPDATE sqlite_master SET tbl_name = 'REGISTRY' WHERE name = "
       "'registry'",
       "table registry is defined differently"},
      {"CREATE TRIGGER t DELETE ON po BEGIN SELECT 1; END", "trigger t does not belong"},
      {"DROP TABLE po", "table po is missing"},
      {"DROP TABLE po; CREATE VIEW po AS SELECT 1 AS basename", "view po"},
  };
  for (const auto& [change, reason] : changes) {
    sql(change);
    expect_finding(reason);
  }
  fs::remove(file_);
  fs::create_symlink("/etc/passwd", file_);
  expect_finding("regular file");
}

TEST_F(VerifyTest, DirectoriesAreExaminedToo) {
  const std::string record = full(image_) + "/__dirpo__";
  const std::string sound = read_file(record);
  const struct {
    std::string file, content, reason;
  } cases[] = {
      {record, sound + "\n", "does not parse"},
      {record, sound + std::string(1, '\0'), "NUL"},
      {record, text_of(file_fields("", "", 0, "")), "type is 0"},
      {record, text_of(dir_fields("x")), "location"},
      {record, std::string(70000, '1'), "too long"},
      {full(image_) + "/.write-1-2.tmp", "x", "nothing of the catalog's"},
      {full(image_) + "/ul.db-journal", "x", "without its database"},
      {full(image_) + "/__dsinfo__", "x", "not in a data store's directory"},
      {full("5") + "/__dsinfo__", "x", "does not parse"},
      {full("notes.txt"), "x", "no data store"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.file + ": " + c.reason);
    write_file(c.file, c.content);
    expect_one_finding("file", c.file, c.reason);
    c.file == record ? write_file(record, sound) : void(fs::remove(c.file));
  }
  fs::remove(record);
  expect_one_finding("file", record, "is missing");
  fs::create_symlink("/dev/zero", record);
  expect_one_finding("file", record, "regular file");
}

TEST_F(VerifyTest, WhatACrashLeftHalfWrittenIsRolledBack) {
  const int ended = end_of(start_child([this] {
    sqlite3* db = nullptr;
    sqlite3_open(file_.c_str(), &db);
    return sqlite3_exec(
        db,
        "PRAGMA cache_size = 1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1"
        " FROM n WHERE i < 5000) INSERT INTO po SELECT 'row' || i, '', 'x', 0 FROM n",
        nullptr, nullptr, nullptr);
  }));
  ASSERT_EQ(ended, 0);
  ASSERT_TRUE(fs::exists(file_ + "-journal"));
  expect_sound();
}

}  // namespace
