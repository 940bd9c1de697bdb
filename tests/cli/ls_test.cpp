#include <filesystem>
#include <set>

#include "base/adler32.h"
#include "tests/cli/read_fixture.h"

namespace {

using ListTest = CatalogTest;

TEST_F(ListTest, FilesAndDirectoriesAreListedInByteOrder) {
  refhost::RecordFields fields = file_fields("", make_poid(1), 1234);
  fields.owner = "0:100";
  fields.mtime = 1700000000;
  add_file("b", fields);
  fields.mode = 0104711;
  fields.special_flags = SF_IMMUTABLE | SF_RETENTION_LOCK;
  fields.mtime = 300000000000;
  add_file("Z", fields);
  add_directory(image_ + "/a");
  add_directory(image_ + "/c");
  const Outcome outcome = run_command({"ls", root_, image_});
  EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
  EXPECT_EQ(outcome.out,
            "-rws--x--x       0:100         1234                    - ir Z\n"
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- a\n"
            "-rw-r--r--       0:100         1234 2023-11-14T22:13:20Z -- b\n"
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- c\n");
  EXPECT_EQ(run_command({"ls", root_, "/" + image_ + "/b"}).out,
            "-rw-r--r--       0:100         1234 2023-11-14T22:13:20Z -- b\n");
}

TEST_F(ListTest, WithoutAPathTheDataStoresAreListed) {
  for (const char* name : {"12", "05", "lost+found", "x"}) {
    std::filesystem::create_directory(full(name));
  }
  const Outcome outcome = run_command({"ls", root_});
  EXPECT_EQ(outcome.status, cli::kDone);
  EXPECT_EQ(outcome.out,
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- 12\n"
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- 5\n");
  EXPECT_EQ(run_command({"ls", "--json", root_, "5"}).json().at(0).value("name", ""), "client");
}

// More rows and more damage than a page holds: nothing is left out, listed twice or looked at for
// ever.
TEST_F(ListTest, DamagedRowsAreNamedAndDoNotStopThePages) {
  add_file("name");
  sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 2599) INSERT "
      "INTO po SELECT 'row' || i, poid, content, 0 FROM n, po; UPDATE po SET basename = CASE "
      "substr(basename, 4) WHEN '1511' THEN x'61' WHEN '1512' THEN 'row1' || char(0) WHEN '1513' "
      "THEN NULL WHEN '1514' THEN 'a/name' WHEN '1515' THEN '' ELSE basename END");
  const Outcome outcome = run_command({"ls", "--json", root_, image_});
  EXPECT_EQ(outcome.status, cli::kInconsistent);
  EXPECT_NE(outcome.err.find("without a usable name"), std::string::npos);
  std::set<std::string> names;
  const auto lines = outcome.json();
  for (const auto& line : lines) {
    const std::string name = line.value("name", "");
    EXPECT_EQ(line.value("type", ""), name == "name" ? "file" : "damaged");
    names.insert(name);
  }
  EXPECT_EQ(lines.size(), 1596U);
  EXPECT_EQ(names.size(), lines.size());
}

TEST_F(ListTest, ShowNamesEveryFieldAndTheRowsChecksum) {
  refhost::RecordFields fields = file_fields("", make_poid(1), 1234);
  fields.mtime = 1700000000;
  add_file("b", fields);
  const auto lines = run_command({"show", "--json", root_, image_ + "/b"}).json();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_EQ(lines[0].value("path", ""), image_ + "/b");
  EXPECT_EQ(lines[0].value("full_path", ""), full(image_) + "/b");
  EXPECT_EQ(lines[0].value("poid", ""), make_poid(1));
  EXPECT_EQ(std::to_string(lines[0].value("row_checksum", 0U)), sql("SELECT crc FROM po"));
  const auto& record = lines[0].at("record");
  EXPECT_EQ(record.size(), refhost::kRecordFields + 3);
  EXPECT_EQ(record.value("mtime", ""), "1700000000");
  EXPECT_EQ(record.value("mtime_utc", ""), "2023-11-14T22:13:20Z");
  const std::string text = run_command({"show", root_, image_ + "/b"}).out;
  EXPECT_NE(text.find("mtime           1700000000 (2023-11-14T22:13:20Z)\n"), std::string::npos)
      << text;
}

TEST_F(ListTest, OfAFileAndADirectoryOfOneNameTheSlashDecides) {
  add_file("both");
  add_directory(image_ + "/both");
  std::filesystem::remove(full(image_) + "/both/__dirpo__");
  const auto type = [&](const std::string& path) {
    const auto line = run_command({"show", "--json", root_, path}).json().at(0);
    return line.at("record").value("type", "") + (line.value("default_record", false) ? "d" : "");
  };
  EXPECT_EQ(type(image_ + "/both"), "0");
  EXPECT_EQ(type(image_ + "/both/"), "1d");
}

TEST_F(ListTest, WhatIsNotThereOrMakesNoSenseFailsWithALine) {
  add_file("damaged");
  sql("UPDATE po SET crc = 0");
  std::filesystem::create_directory_symlink(full("5"), full("6"));
  std::filesystem::create_directory(full(image_) + "/endless");
  std::filesystem::create_symlink("/dev/zero", full(image_) + "/endless/__dirpo__");
  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string text;
  };
  const std::vector<Case> cases = {
      {{"ls", root_, image_ + "/none"}, cli::kFailed, "no such entry"},
      {{"ls", root_, image_ + "/damaged/"}, cli::kFailed, "no such directory"},
      {{"ls", root_, image_ + "/damaged"}, cli::kFailed, "cannot be read"},
      {{"ls", root_, "6/client"}, cli::kFailed, "no such"},
      {{"ls", root_ + "/none"}, cli::kFailed, "no such"},
      {{"verify", root_ + "/none"}, cli::kFailed, "no such catalog"},
      {{"show", root_, image_ + "/none"}, cli::kFailed, "no such entry"},
      {{"show", root_, image_ + "/damaged"}, cli::kFailed, "(status -1"},
      {{"show", root_, image_ + "/endless"}, cli::kFailed, "(status 103"},
      {{"ls", root_, image_}, cli::kInconsistent, ""},
      {{"show", root_, "/"}, cli::kUsage, "not a path"},
      {{"ls", root_, "5/../5"}, cli::kUsage, "not a path"},
      {{"ls", root_, "05/client"}, cli::kUsage, "not a path"},
      {{"ls"}, cli::kUsage, "ROOT"},
      {{"rm", root_}, cli::kUsage, "PATH"},
      {{"verify", root_, "more"}, cli::kUsage, "more"},
      {{"frobnicate"}, cli::kUsage, "frobnicate"},
      {{}, cli::kUsage, "subcommand"},
      {{"ls", "--log", root_ + "/none/log", root_}, cli::kFailed, "log file"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.arguments));
    const Outcome outcome = run_command(c.arguments);
    EXPECT_EQ(outcome.status, c.status) << outcome.out;
    EXPECT_NE(outcome.err.find(c.text), std::string::npos) << outcome.err;
  }
}

TEST_F(ListTest, OutputThatCannotBeWrittenIsAFailure) {
  std::ostringstream err;
  std::ostream closed(nullptr);
  const std::vector<const char*> argv = {"pocatalog", "ls", root_.c_str()};
  EXPECT_EQ(cli::run(3, argv.data(), closed, err), cli::kFailed);
}

TEST(Printable, NoTwoNamesLookAlikeAndNoControlByteIsLeft) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain name", "plain name"},
      {"gr\u00fc\u00df \u20ac \U0001f600", "gr\u00fc\u00df \u20ac \U0001f600"},
      {"\x1b[31m\n\x7f", "\\x1b[31m\\x0a\\x7f"},
      {"\\x1b", "\\x5cx1b"},
      {"\xc2\x9b", "\\xc2\\x9b"},           // the control that starts a sequence, as UTF-8
      {"\xe2\x80\xae", "\\xe2\\x80\\xae"},  // turns what follows around
      {"\xff\xc3", "\\xff\\xc3"},           // no UTF-8, and a character cut off
      {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},  // longer than need be
      {"\xed\xa0\x80\xf4\x90\x80\x80", "\\xed\\xa0\\x80\\xf4\\x90\\x80\\x80"},  // no characters
  };
  for (const auto& [name, shown] : cases) EXPECT_EQ(cli::printable(name), shown);
}

TEST(CatalogPaths, DatabasesAreOpenedUpToTheLongestPathThatFits) {
  const TempDir temp;
  std::string directory = temp.path();
  while (cli::database_path_fits(directory + "/" + std::string(100, 'd'))) {
    directory += "/" + std::string(100, 'd');
  }
  while (cli::database_path_fits(directory + "/d"))
    directory += directory.back() == '/' ? "d" : "/";
  std::filesystem::create_directories(directory);
  const auto opens = [](const std::string& path) {
    SQLitePODB db(path, path);
    return db.begin_transaction() == CR_STATUS_OK && db.rollback_transaction() == CR_STATUS_OK;
  };
  refhost::log_to_sink([](const refhost::LogLine&) {});
  EXPECT_TRUE(opens(directory));
  std::filesystem::create_directories(directory + "/dd");
  EXPECT_FALSE(opens(directory + "/dd"));
  refhost::log_to_stderr();
}

}  // namespace
