#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <functional>

#include "tests/cli/read_fixture.h"

namespace {

class VerifyTest : public CatalogTest {
 protected:
  VerifyTest() {
    add_file("alpha");
    add_file("beta", file_fields("", make_poid(1), 1000));
    add_file("gamma");
  }

  static std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }

  // Exactly one finding, about this row or file, for this reason.
  static void expect_one_finding(const Outcome& outcome, const std::string& key,
                                 const std::string& value, const std::string& reason) {
    EXPECT_EQ(outcome.status, cli::kInconsistent);
    const auto lines = outcome.json();
    ASSERT_EQ(lines.size(), 2U) << outcome.out;
    EXPECT_EQ(lines[0].value(key, ""), value) << outcome.out;
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << outcome.out;
  }
};

TEST_F(VerifyTest, EveryKindOfDamageToARowIsNamed) {
  struct Case {
    std::string change;
    std::string reason;
    std::string name = "beta";
  };
  const std::vector<Case> cases = {
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
  };
  const std::string sound = read(database(image_));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.change);
    write(database(image_), sound);
    sql("UPDATE po SET " + c.change + " WHERE basename = 'beta'");
    expect_one_finding(verify(), "row", c.name, c.reason);
  }
}

TEST_F(VerifyTest, ARecordThatItsChecksumCoversIsStillExamined) {
  refhost::RecordFields other = file_fields("", make_poid(1), 7);
  other.directory = "";
  refhost::RecordFields placed = other;
  placed.dsid = 5;
  refhost::RecordFields directory = other;
  directory.type = PO_TYPE_DIR;
  refhost::RecordFields bad_poid = other;
  bad_poid.poid = "not a poid";
  struct Case {
    std::string poid;
    std::string content;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {make_poid(1), text_of(placed), "holds a location"},
      {make_poid(1), text_of(directory), "type is 1, not 0"},
      {"not a poid", text_of(bad_poid), "POID is not valid"},
      {make_poid(2), text_of(other), "poid is not that of the record"},
      {make_poid(1), text_of(other) + "|", "does not parse"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.reason);
    const auto crc = SQLitePODB::calculate_crc("beta", c.poid.c_str(), c.content.c_str());
    sql("UPDATE po SET poid = '" + c.poid + "', content = '" + c.content +
        "', crc = " + std::to_string(crc) + " WHERE basename = 'beta'");
    expect_one_finding(verify(), "row", "beta", c.reason);
  }
}

TEST_F(VerifyTest, EveryChangedByteOfTheFileThatHoldsARowIsFound) {
  const std::string sound = read(database(image_));
  const std::size_t poid = sound.find("beta" + make_poid(1));
  ASSERT_NE(poid, std::string::npos);
  const std::size_t end = sound.find("|64|0|0", poid) + 7 + 4;  // the checksum follows
  for (std::size_t at = poid - 9; at < end; ++at) {  // length, rowid and the columns' types first
    std::string damaged = sound;
    damaged[at] = static_cast<char>(damaged[at] ^ 0x10);
    write(database(image_), damaged);
    EXPECT_EQ(verify().status, cli::kInconsistent) << "byte " << at - poid;
  }
}

TEST_F(VerifyTest, DamageToTheDatabaseIsOneFindingAndTheOtherDatabasesAreStillChecked) {
  const std::string sound = read(database(image_));
  const std::string next = image_ + "/zz";
  const auto replaced = [&](const std::string& content) {
    return [=] { write(database(image_), content); };
  };
  const auto changed = [&](const char* statements) { return [=] { sql(statements); }; };
  const std::vector<std::pair<std::function<void()>, std::string>> cases = {
      {replaced(""), "is empty"},
      {replaced(std::string(5000, 'x')), "not a database"},
      {replaced(sound.substr(0, sound.size() / 2)), "malformed"},
      {replaced(sound.substr(0, 50)), "malformed"},
      {[&] {
         std::filesystem::remove(database(image_));
         std::filesystem::create_symlink("/etc/passwd", database(image_));
       },
       "regular file"},
      {changed("DELETE FROM registry"), "db_version is missing"},
      {changed("UPDATE registry SET value = '2'"), "db_version is 2"},
      {changed("UPDATE registry SET value = x'31'"), "not a text"},
      {changed("DROP INDEX po_poid"), "index po_poid is missing"},
      {changed("DROP INDEX po_poid; CREATE INDEX po_poid ON po(crc)"), "defined differently"},
      {changed("PRAGMA writable_schema = ON; "
               "UPDATE sqlite_master SET tbl_name = 'REGISTRY' WHERE name = 'registry'"),
       "table registry is defined differently"},
      {changed("CREATE TRIGGER t DELETE ON po BEGIN SELECT 1; END"), "trigger t does not belong"},
      {changed("DROP TABLE po"), "table po is missing"},
      {changed("DROP TABLE po; CREATE VIEW po AS SELECT 1 AS basename"), "view po"},
  };
  add_directory(next);
  write(full(next) + "/po.db", "");  // the finding that must always be there, too
  for (const auto& [damage, reason] : cases) {
    std::filesystem::remove(database(image_));
    write(database(image_), sound);
    damage();
    const Outcome outcome = verify();
    EXPECT_EQ(outcome.status, cli::kInconsistent);
    EXPECT_NE(outcome.out.find(reason), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("policy/zz/po.db"), std::string::npos) << outcome.out;
  }
}

TEST_F(VerifyTest, DirectoriesAreExaminedToo) {
  const std::string record = full(image_) + "/__dirpo__";
  const std::string sound = read(record);
  struct Case {
    std::string file;  // what the finding names
    std::string content;
    std::string reason;
  };
  const std::vector<Case> cases = {
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
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + ": " + c.reason);
    write(c.file, c.content);
    expect_one_finding(verify(), "file", c.file, c.reason);
    std::filesystem::remove(c.file);
    if (c.file != record) continue;
    expect_one_finding(verify(), "file", record, "is missing");
    write(record, sound);
  }
  std::filesystem::remove(record);
  std::filesystem::create_symlink("/dev/zero", record);
  expect_one_finding(verify(), "file", record, "regular file");
}

TEST_F(VerifyTest, WhatACrashLeftHalfWrittenIsRolledBack) {
  const pid_t child = fork();
  if (child == 0) {
    sqlite3* db = nullptr;
    sqlite3_open(database(image_).c_str(), &db);
    const int code = sqlite3_exec(
        db,
        "PRAGMA cache_size = 1; BEGIN; WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1"
        " FROM n WHERE i < 5000) INSERT INTO po SELECT 'row' || i, '', 'x', 0 FROM n",
        nullptr, nullptr, nullptr);
    _exit(code);
  }
  int ended = 0;
  ASSERT_EQ(waitpid(child, &ended, 0), child);
  ASSERT_EQ(ended, 0);
  ASSERT_TRUE(std::filesystem::exists(database(image_) + "-journal"));
  EXPECT_EQ(verify().status, cli::kDone) << verify().out;
}

}  // namespace
