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

TEST_F(VerifyTest, ASoundCatalogIsCountedAndNothingIsFoundOrChanged) {
  const std::string before = read(database(image_));
  const Outcome outcome = run_command({"verify", root_});
  EXPECT_EQ(outcome.status, cli::kDone) << outcome.out;
  EXPECT_EQ(outcome.out, "1 databases, 3 rows: 0 damaged rows, 0 other findings, 0 not examined\n");
  EXPECT_EQ(read(database(image_)), before);
}

TEST_F(VerifyTest, EveryKindOfDamageToARowIsNamed) {
  struct Case {
    std::string change;
    std::string reason;
    std::string name = "beta";
  };
  const std::string where = " WHERE basename = 'beta'";
  const std::vector<Case> cases = {
      {"UPDATE po SET poid = NULL" + where, "poid is NULL"},
      {"UPDATE po SET content = NULL" + where, "content is NULL"},
      {"UPDATE po SET crc = NULL" + where, "crc is NULL"},
      {"UPDATE po SET basename = NULL" + where, "basename is NULL", ""},
      {"UPDATE po SET basename = CAST('beta' AS BLOB)" + where, "basename is a blob"},
      {"UPDATE po SET poid = CAST(poid AS BLOB)" + where, "poid is a blob"},
      {"UPDATE po SET content = CAST(content AS BLOB)" + where, "content is a blob"},
      {"UPDATE po SET crc = crc || 'x'" + where, "crc is text"},
      {"UPDATE po SET crc = crc + 0.5" + where, "crc is a real number"},
      {"UPDATE po SET crc = crc + 4294967296" + where, "the checksum is"},
      {"UPDATE po SET crc = -1" + where, "the checksum is"},
      {"UPDATE po SET poid = poid || char(0) || 'x'" + where, "poid holds a NUL"},
      {"UPDATE po SET content = content || char(0)" + where, "content holds a NUL"},
      {"UPDATE po SET content = ''" + where, "does not parse"},
      {"UPDATE po SET basename = ''" + where, "basename is empty", ""},
      {"UPDATE po SET basename = 'a/b'" + where, "basename holds a '/'", "a/b"},
      {"UPDATE po SET basename = '..'" + where, "no name of a file", ".."},
      {"UPDATE po SET rowid = 9223372036854775807, poid = ''" + where, "the checksum is"},
      {"UPDATE po SET rowid = -9223372036854775807, poid = ''" + where, "the checksum is"},
  };
  const std::string sound = read(database(image_));
  for (const Case& c : cases) {
    SCOPED_TRACE(c.change);
    write(database(image_), sound);
    sql(c.change);
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

TEST_F(VerifyTest, EveryChangedByteOfARowIsFound) {
  const std::string sound = read(database(image_));
  for (const std::string column : {"basename", "poid", "content"}) {
    const std::size_t length =
        std::stoul(sql("SELECT length(" + column + ") FROM po WHERE basename = 'beta'"));
    const std::string hex = sql("SELECT hex(" + column + ") FROM po WHERE basename = 'beta'");
    for (std::size_t i = 0; i < length; ++i) {
      std::string changed = hex;
      changed[2 * i + 1] = changed[2 * i + 1] == '1' ? '3' : '1';
      std::string change = "UPDATE po SET " + column;
      change += " = CAST(x'" + changed + "' AS TEXT) WHERE basename = 'beta'";
      sql(change);
      const Outcome outcome = verify();
      const auto lines = outcome.json();
      ASSERT_EQ(outcome.status, cli::kInconsistent) << column << " " << i;
      EXPECT_EQ(lines[0].value("rowid", 0), 2) << outcome.out;
      write(database(image_), sound);
    }
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
  struct Case {
    std::string name;
    std::function<void()> damage;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {"zero length", [&] { write(database(image_), ""); }, "is empty"},
      {"foreign file", [&] { write(database(image_), std::string(5000, 'x')); }, "not a database"},
      {"cut in the middle", [&] { write(database(image_), sound.substr(0, sound.size() / 2)); },
       "malformed"},
      {"cut header", [&] { write(database(image_), sound.substr(0, 50)); }, "malformed"},
      {"a link", [&] { std::filesystem::create_symlink("/etc/passwd", database(image_)); },
       "regular file"},
      {"a directory", [&] { std::filesystem::create_directory(database(image_)); }, "regular file"},
      {"no version", [&] { sql("DELETE FROM registry"); }, "db_version is missing"},
      {"other version", [&] { sql("UPDATE registry SET value = '2'"); }, "db_version is 2"},
      {"version of another type", [&] { sql("UPDATE registry SET value = x'31'"); }, "not a text"},
      {"no index", [&] { sql("DROP INDEX po_poid"); }, "index po_poid is missing"},
      {"other index", [&] { sql("DROP INDEX po_poid; CREATE INDEX po_poid ON po(crc)"); },
       "defined differently"},
      {"one table more", [&] { sql("CREATE TABLE more (x)"); }, "table more does not belong"},
      {"a trigger", [&] { sql("CREATE TRIGGER t DELETE ON po BEGIN SELECT 1; END"); },
       "trigger t does not belong"},
      {"other table", [&] { sql("ALTER TABLE po ADD COLUMN more TEXT"); },
       "table po is defined differently"},
      {"no table", [&] { sql("DROP TABLE po"); }, "table po is missing"},
      {"a view for the table",
       [&] { sql("DROP TABLE po; CREATE VIEW po AS SELECT 1 AS basename"); }, "view po"},
  };
  add_directory(next);
  write(full(next) + "/po.db", "");  // the finding that must always be there, too
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    std::filesystem::remove_all(database(image_));
    if (c.name.front() != 'a' || c.name == "a trigger" || c.name == "a view for the table") {
      write(database(image_), sound);
    }
    c.damage();
    const Outcome outcome = verify();
    EXPECT_EQ(outcome.status, cli::kInconsistent);
    EXPECT_NE(outcome.out.find(c.reason), std::string::npos) << outcome.out;
    EXPECT_NE(outcome.out.find("policy/zz/po.db"), std::string::npos) << outcome.out;
  }
}

TEST_F(VerifyTest, DirectoriesAreExaminedToo) {
  const std::string record = full(image_) + "/__dirpo__";
  const std::string sound = read(record);
  struct Case {
    std::string file;  // what the finding names
    std::function<void()> damage;
    std::function<void()> repair;
    std::string reason;
  };
  const auto rewrite = [&] {
    std::filesystem::remove_all(record);
    write(record, sound);
  };
  const auto leftover = [&](const std::string& file, const std::string& reason) {
    return Case{file, [file] { write(file, "x"); }, [file] { std::filesystem::remove(file); },
                reason};
  };
  const std::vector<Case> cases = {
      {record, [&] { std::filesystem::remove(record); }, rewrite, "is missing"},
      {record, [&] { write(record, sound + "\n"); }, rewrite, "does not parse"},
      {record, [&] { write(record, sound + std::string(1, '\0')); }, rewrite, "NUL"},
      {record, [&] { write(record, ""); }, rewrite, "does not parse"},
      {record, [&] { write(record, text_of(file_fields("", "", 0, ""))); }, rewrite, "type is 0"},
      {record, [&] { write(record, text_of(dir_fields("x"))); }, rewrite, "location"},
      {record, [&] { write(record, std::string(70000, '1')); }, rewrite, "too long"},
      {record,
       [&] {
         std::filesystem::remove(record);
         std::filesystem::create_symlink("/dev/zero", record);
       },
       rewrite, "regular file"},
      leftover(full(image_) + "/.write-1-2.tmp", "nothing of the catalog's"),
      leftover(full(image_) + "/ul.db-journal", "without its database"),
      leftover(full(image_) + "/__dsinfo__", "not in a data store's directory"),
      leftover(full("5") + "/__dsinfo__", "does not parse"),
      leftover(full("notes.txt"), "no data store"),
      leftover(full("05"), "no data store"),
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.file + ": " + c.reason);
    c.damage();
    expect_one_finding(verify(), "file", c.file, c.reason);
    c.repair();
  }
  EXPECT_EQ(verify().status, cli::kDone) << verify().out;
}

TEST_F(VerifyTest, LinksAreNotFollowed) {
  std::filesystem::create_directory_symlink(full(image_), full(image_) + "/loop");
  expect_one_finding(verify(), "file", full(image_) + "/loop", "nothing of the catalog's");
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
