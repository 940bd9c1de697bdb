// What verify and check say, and what stats and dcids say of contents and their lists.
#include <sys/file.h>

#include "tests/cli/independent.h"
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
    const auto lines = expect(cli::kInconsistent, "--json verify " + root_).json();
    ASSERT_EQ(lines.size(), 2U) << reason;
    EXPECT_EQ(lines[0].value(key, ""), value) << lines[0];
    EXPECT_NE(lines[0].value("reason", "").find(reason), std::string::npos) << lines[0];
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
      {"basename = NULL", "basename is NULL", ""},
      {"crc = crc + 4294967296", "the checksum is"},
      {"poid = poid || char(0) || 'x'", "poid holds a NUL"},
      {"content = ''", "does not parse"},
      {"basename = 'a/b'", "basename holds a '/'", "a/b"},
      {covered(make_poid(1), file_fields("x", make_poid(1), 7)), "holds a location"},
      {covered("", dir_fields("", "")), "type is 1, not 0"},
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

// Files "alpha" and "beta" share a content; "gamma" has its own, and "empty" has none.
class ListCommandsTest : public CommandTest {
 protected:
  ListCommandsTest() {
    for (const std::string name : {"alpha", "beta"}) write(name, "shared");
    write("gamma", "own");
    write("empty", "");
    ingest(cli::kDone);
  }
  // How many things the command tells about a file of this name.
  long told(const std::string& name, int status, const std::string& file) const {
    const auto lines = expect(status, name + " --json " + root_).json();
    const auto of_file = [&](const auto& line) { return line.value("file", "") == file; };
    return std::count_if(lines.begin(), lines.end(), of_file);
  }
  const std::string shared_ = sha256_hex("shared");
};

TEST_F(ListCommandsTest, VerifyAndCheckNameContentsAndListsThatDoNotFit) {
  const auto expect_told = [this](int contents, int lone) {
    for (const char* name : {"verify", "check"}) {
      const int status = contents + lone == 0 ? cli::kDone : cli::kInconsistent;
      EXPECT_EQ(told(name, status, full(image_) + "/alpha"), contents);
      EXPECT_EQ(told(name, status, lists()), lone);
    }
  };
  expect_told(0, 0);
  raw_sql(lists(), "DELETE FROM utable WHERE poid = '" + shared_ + "'");
  sql("DELETE FROM po WHERE basename = 'gamma'");
  expect_told(1, 1);
  raw_sql(lists(),
          "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 1300) "
          "INSERT INTO utable SELECT printf('%064d', i), udcids FROM n, utable");
  expect_told(1, 1301);  // more than a page holds
  fs::remove(lists());
  expect_told(1, 0);
}

TEST_F(ListCommandsTest, CountersAreComparedUnlessARunIsAtWork) {
  const std::string file = full("5/__dsinfo__");
  write_file(file, cli::print_dsinfo({{16, 2, 3}, 0}));
  EXPECT_EQ(told("check", cli::kInconsistent, file), 2);
  const refhost::Fd run(::open((file + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
  flock(run.get(), LOCK_SH);
  expect(cli::kIncomplete, "check " + root_, "an ingest is at work");
}

// Nothing that reads writes anything; the library's own get would drop the damaged list.
TEST_F(ListCommandsTest, ContentsAndContainersAreCountedAndPrintedAndNothingIsWritten) {
  raw_sql(lists(), "UPDATE utable SET udcids = x'00' WHERE poid <> '" + shared_ + "'");
  const auto before = snapshot(root_);
  const Outcome outcome = expect(cli::kInconsistent, "stats --json " + root_);
  EXPECT_EQ(outcome.json().at(1).dump(),  // the damaged list was told before
            R"({"bytes":15,"containers":1,"content_bytes":9,"contents":2,"directories":2,)"
            R"("files":4,"lists":1,"shared_contents":1,"unique_contents":1})");
  const std::string dcids = "dcids --json " + root_ + " ";
  for (const std::string& content : {image_ + "/beta", shared_}) {
    expect(cli::kDone, dcids + content, "\"bytes\":6");
  }
  expect(cli::kFailed, dcids + image_ + "/empty");
  expect(cli::kFailed, dcids + make_poid(9));
  expect(cli::kInconsistent, dcids + image_ + "/gamma");
  expect(cli::kInconsistent, "verify " + root_, "checksum or size");
  expect(cli::kDone, "check " + root_);
  expect(cli::kDone, "find " + root_ + " *");
  EXPECT_EQ(snapshot(root_), before);
}

}  // namespace
