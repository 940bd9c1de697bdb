#include <set>

#include "cli/cause.h"
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
  fields = file_fields("", make_poid(1), 7);
  fields.owner = "0:100";
  fields.mtime = static_cast<std::uint64_t>(-1);
  add_file("c", fields);
  add_directory(image_ + "/a");
  EXPECT_EQ(command("ls " + root_ + " " + image_).out,
            "-rws--x--x       0:100         1234                    - ir Z\n"
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- a\n"
            "-rw-r--r--       0:100         1234 2023-11-14T22:13:20Z -- b\n"
            "-rw-r--r--       0:100            7 1969-12-31T23:59:59Z -- c\n");
  EXPECT_EQ(command("--json ls " + root_ + " " + image_ + "/c").json().at(0)["mtime"], -1);
}

// More rows and more damage than a page holds: nothing is left out, listed twice or looked at for
// ever.
TEST_F(ListTest, DamagedRowsAreNamedAndDoNotStopThePages) {
  add_file("name");
  sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 2599) INSERT "
      "INTO po SELECT 'row' || i, poid, content, 0 FROM n, po; UPDATE po SET basename = CASE "
      "substr(basename, 4) WHEN '1511' THEN x'61' WHEN '1512' THEN 'row1' || char(0) WHEN '1513' "
      "THEN NULL WHEN '1514' THEN 'a/name' WHEN '1515' THEN '' ELSE basename END");
  const Outcome outcome =
      expect(cli::kInconsistent, "ls --json " + root_ + " " + image_, "without a usable name");
  std::set<std::string> names;
  auto lines = outcome.json();
  EXPECT_EQ(lines.back()["problem"], "has rows without a usable name");
  lines.pop_back();
  for (const auto& line : lines) {
    const std::string name = line.value("name", "");
    EXPECT_EQ(line.value("type", ""), name == "name" ? "file" : "damaged");
    names.insert(name);
  }
  EXPECT_EQ(lines.size(), 1596U);
  EXPECT_EQ(names.size(), lines.size());
}

TEST_F(ListTest, WhatIsNotThereOrMakesNoSenseFailsWithALine) {
  add_file("damaged");
  sql("UPDATE po SET crc = 0");
  add_file("both");
  add_directory(image_ + "/both");
  fs::remove(full(image_) + "/both/__dirpo__");
  fs::create_directory_symlink(full("5"), full("6"));
  fs::create_directory(full(image_) + "/endless");
  fs::create_symlink("/dev/zero", full(image_) + "/endless/__dirpo__");
  const std::string in = " " + root_ + " ", image = in + image_, find = "find" + in + "* --";
  expect(cli::kFailed, "ls" + image + "/none", "no such entry");
  expect(cli::kInconsistent, "ls" + image + "/damaged", "damaged: see");
  expect(cli::kInconsistent, "show" + image + "/damaged", "damaged: see");
  expect(cli::kDone, "show --json" + image + "/both", "\"type\":\"0\"");
  expect(cli::kDone, "show --json" + image + "/both/", "\"default_record\":true");
  expect(cli::kInconsistent, "show" + image + "/endless", "damaged: see");
  expect(cli::kInconsistent, "ls" + image);
  expect(cli::kFailed, "ls" + in + "6/client", "no such");
  expect(cli::kFailed, "verify " + root_ + "/none", "no such directory");
  expect(cli::kFailed, "ls --log " + root_ + "/none/log " + root_, "log file");
  expect(cli::kUsage, "show" + in + "/", "not a path");
  expect(cli::kUsage, "ls" + in + "5/../5", "not a path");
  expect(cli::kUsage, "ls", "ROOT");
  expect(cli::kUsage, "frobnicate", "frobnicate");
  expect(cli::kUsage, "", "subcommand");
  for (const char* condition : {"size <5k", "poid abc", "newer yesterday", "under ../x"}) {
    expect(cli::kUsage, find + condition);
  }
  const std::vector<const char*> arguments = {"pocatalog", "ls", root_.c_str()};
  std::ostream closed(nullptr);
  std::ostringstream err;
  EXPECT_EQ(cli::run(3, arguments.data(), closed, err), cli::kFailed) << "it cannot be written";
}

// SQLite is told before its first use, which is that of the first fixture.
const bool kWatched = (cli::watch_sqlite(), true);

TEST_F(ListTest, AFailureIsToldWithItsCause) {
  ASSERT_TRUE(kWatched);
  fs::create_directory(database(image_));
  const Outcome outcome = command("--json check " + root_);
  std::string causes;
  for (const auto& line : outcome.json()) causes += line.value("cause", "");
  for (const std::string& told : {causes, outcome.err}) {
    EXPECT_NE(told.find("po.db): Is a directory"), std::string::npos) << outcome.err;
  }
}

TEST(Printable, NoTwoNamesLookAlikeAndNoControlByteIsLeft) {
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"plain name", "plain name"},
      {"gr\u00fc\u00df \u20ac \U0001f600", "gr\u00fc\u00df \u20ac \U0001f600"},
      {"\x1b[31m\n\x7f", "\\x1b[31m\\x0a\\x7f"},
      {"\\x1b", "\\x5cx1b"},
      {"\xc2\x9b", "\\xc2\\x9b"},           // the control that starts a sequence, as UTF-8
      {"\xe2\x80\xae", "\\xe2\\x80\\xae"},  // turns what follows around
      {"a\u00ad\U000e0041", "a\\xc2\\xad\\xf3\\xa0\\x81\\x81"},  // not to be seen
      {"\xff\xc3", "\\xff\\xc3"},                             // no UTF-8, and a character cut off
      {"\xc0\xaf\xe0\x80\xaf", "\\xc0\\xaf\\xe0\\x80\\xaf"},  // longer than need be
  };
  for (const auto& [name, shown] : cases) EXPECT_EQ(cli::printable(name), shown);
}

}  // namespace
