#include "tests/cli/read_fixture.h"

namespace {

class VerifyTest : public CatalogTest {
 protected:
  VerifyTest() {
    add_file("alpha");
    add_file("beta", file_fields("", make_poid(1), 1000));
    sound_ = read_file(file_);
  }
  // Exactly one finding, about this row or file, for this reason.
  void expect_one_finding(const std::string& key, const std::string& value,
                          const std::string& reason) const {
    const Outcome outcome = expect(cli::kInconsistent, "--json verify " + root_);
    const auto lines = outcome.json();
    ASSERT_EQ(lines.size(), 2U) << reason << ": " << outcome.out;
    EXPECT_EQ(lines[0].value(key, ""), value) << outcome.out;
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << outcome.out;
  }

  const std::string file_ = database(image_);
  std::string sound_;
};

TEST_F(VerifyTest, EveryKindOfDamageToRowsAndTablesIsNamed) {
  // Under a checksum that is right.
  const auto covered = [](const std::string& poid, const refhost::RecordFields& fields) {
    const std::string content = text_of(fields);
    const auto crc = SQLitePODB::calculate_crc("beta", poid.c_str(), content.c_str());
    return "poid = '" + poid + "', content = '" + content + "', crc = " + std::to_string(crc);
  };
  const struct {
    std::string change, reason, name = "beta";
  } cases[] = {
      {"content = NULL", "content is NULL"},
      {"basename = NULL", "basename is NULL", ""},
      {"crc = crc || 'x'", "crc is text"},
      {"crc = crc + 4294967296", "the checksum is"},
      {"poid = poid || char(0) || 'x'", "poid holds a NUL"},
      {"content = ''", "does not parse"},
      {"basename = 'a/b'", "basename holds a '/'", "a/b"},
      {"rowid = -9223372036854775807, poid = ''", "the checksum is"},
      {covered(make_poid(1), file_fields("x", make_poid(1), 7)), "holds a location"},
      {covered("", dir_fields("", "")), "type is 1, not 0"},
      {covered("no poid", file_fields("", "no poid", 7, "")), "POID is not valid"},
      {covered(make_poid(2), file_fields("", make_poid(1), 7, "")), "not that of the record"},
      {"DELETE FROM registry", "db_version is missing", ""},
      {"DROP INDEX po_poid; CREATE INDEX po_poid ON po(crc)", "defined differently", ""},
      {"CREATE TRIGGER t DELETE ON po BEGIN SELECT 1; END", "trigger t does not belong", ""},
  };
  for (const auto& c : cases) {
    write_file(file_, sound_);
    const bool row = c.change.find(" = ") != std::string::npos;
    sql(row ? "UPDATE po SET " + c.change + " WHERE basename = 'beta'" : c.change);
    expect_one_finding("row", c.name, c.reason);
  }
}

TEST_F(VerifyTest, DirectoriesAndFilesAreExaminedToo) {
  const std::string record = full(image_) + "/__dirpo__";
  const std::pair<std::string, std::string> cases[] = {
      {record, "does not parse"},
      {file_, "not a database"},
      {full(image_) + "/.write-1-2.tmp", "nothing of the catalog's"},
      {full(image_) + "/ul.db-journal", "without its database"},
      {full("5") + "/__dsinfo__", "does not parse"},
      {full("notes.txt"), "no data store"},
  };
  for (const auto& [file, reason] : cases) {
    const auto before = snapshot(root_);
    write_file(file, std::string(5000, 'x'));
    expect_one_finding("file", file, reason);
    fs::remove(file);
    if (before.count(file) != 0) write_file(file, before.at(file));
  }
  write_file(file_, "");  // others are examined all the same
  fs::remove(record);
  EXPECT_EQ(expect(cli::kInconsistent, "--json verify " + root_).json().size(), 3U);
}

}  // namespace
