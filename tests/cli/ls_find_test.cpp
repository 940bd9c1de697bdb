#include <algorithm>
#include <boost/algorithm/string/replace.hpp>

#include "cli/cause.h"
#include "cli/sqlite_reader.h"
#include "tests/cli/read_fixture.h"

namespace {

class ListTest : public CatalogTest {
 protected:
  // The paths that are found, without the image's.
  std::string found(const std::string& pattern, const std::string& conditions = "") const {
    const Outcome outcome = command("find" + in_ + conditions + " --", {pattern});
    return boost::replace_all_copy(outcome.out, image_ + "/", "");
  }
  const std::string in_ = " " + root_ + " ";
};

TEST_F(ListTest, FilesAndDirectoriesAreListedInByteOrder) {
  refhost::RecordFields fields = file_fields("", make_poid(1), 1234);
  fields.owner = "0:100";
  fields.mtime = 1700000000;
  add_file("b", fields);
  fields.mode = 0104711;
  fields.special_flags = SF_IMMUTABLE | SF_RETENTION_LOCK;
  fields.mtime = static_cast<std::uint64_t>(-1);
  add_file("Z", fields);
  add_directory(image_ + "/a");
  EXPECT_EQ(command("ls" + in_ + image_).out,
            "-rws--x--x       0:100         1234 1969-12-31T23:59:59Z ir Z\n"
            "drwxr-xr-x                        0 1970-01-01T00:00:00Z -- a\n"
            "-rw-r--r--       0:100         1234 2023-11-14T22:13:20Z -- b\n");
  const std::string all = command("ls -R" + in_ + image_).out;
  EXPECT_EQ(all.substr(0, image_.size() + 2), image_ + ":\n");
  EXPECT_EQ(all.substr(all.find("b\n")), "b\n\n" + image_ + "/a:\n");
  EXPECT_EQ(command("ls --json -R" + in_).json().back()["directory"], image_);
}

// More directories than are in work at once, some with more output than is kept for them.
TEST_F(ListTest, WhatThreadsFindHasTheOrderOfOne) {
  std::string expected;
  for (int i = 1000; i < 1300; ++i) {
    const std::string name = "/" + std::to_string(i), file = "/" + std::string(200, 'x');
    for (int j = 0; j < (i % 100 == 0 ? 400 : i % 20 == 0); ++j) {
      write(name + file + std::to_string(1000 + j), "");
      expected += image_ + name + file + std::to_string(1000 + j) + "\n";
    }
    fs::create_directories(source_ + name);
  }
  ingest(cli::kDone, "--no-content");
  EXPECT_EQ(command("find" + in_ + "*").out, expected);
}

// Its journal would be taken for that of the file which went, and undone there.
TEST_F(ListTest, AReaderOfAReplacedDatabaseLeavesTheNewOneAlone) {
  add_file("old");
  cli::Connection connection;
  ASSERT_EQ(connection.open(database(image_)), SQLITE_OK);
  cli::Statement rows(connection, "SELECT * FROM po");
  ASSERT_EQ(rows.step(), SQLITE_ROW);
  rows.reset();
  fs::rename(database(image_), root_ + "/moved");
  add_file("new");
  const std::string journal = database(image_) + "-journal", content(4096, 'j');
  write_file(journal, content);
  EXPECT_EQ(rows.step(), SQLITE_BUSY);
  EXPECT_EQ(cli::ReadTransaction(connection).code(), SQLITE_BUSY);
  EXPECT_EQ(read_file(journal), content);
  fs::create_symlink(database(image_), root_ + "/link");
  EXPECT_EQ(connection.open(root_ + "/link"), SQLITE_OK);
  EXPECT_EQ(sqlite3_db_filename(connection.handle(), "main"), database(image_))
      << "where its journal lies";
}

// More rows and more damage than a page holds: nothing is left out or listed twice.
TEST_F(ListTest, DamagedRowsAreNamedByLsAndFindAndDoNotStopThePages) {
  add_file("name");
  sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 3399) INSERT "
      "INTO po SELECT iif(i % 2, 'odd', 'even') || i, poid, content, 0 FROM n, po");
  Names listed;
  for (const auto& line : expect(cli::kInconsistent, "ls --json" + in_ + image_).json()) {
    listed.push_back(line["name"]);
  }
  EXPECT_EQ(listed, names());
  sql("UPDATE po SET basename = NULL WHERE basename = 'odd1511'");
  expect(cli::kInconsistent, "ls" + in_ + image_, "has rows without a usable name");
  const std::string told = expect(cli::kInconsistent, "find" + in_ + "even*").err;
  EXPECT_EQ(std::count(told.begin(), told.end(), '\n'), 1200);
}

// SQLite is told before its first use, which is that of the first fixture.
const bool kWatched = (cli::watch_sqlite(), true);

TEST_F(ListTest, WhatIsNotThereOrDamagedIsToldWithItsCause) {
  ASSERT_TRUE(kWatched);
  add_file("damaged");
  sql("UPDATE po SET crc = 0");
  expect(cli::kFailed, "ls" + in_ + image_ + "/none", "no such entry");
  expect(cli::kFailed, "verify " + root_ + "/none", "no such directory");
  expect(cli::kInconsistent, "show" + in_ + image_ + "/damaged", "damaged: see");
  fs::remove(database(image_));
  fs::create_directory(database(image_));
  expect(cli::kIncomplete, "check" + in_, "po.db): Is a directory");
}

TEST_F(ListTest, EveryConditionNarrowsTheSearch) {
  refhost::RecordFields fields = file_fields("", make_poid(1), 100);
  fields.mtime = 999;
  add_file("a'b", fields);
  fields.size = 101;
  fields.poid = make_poid(2);
  add_file("aXb", fields);
  fields.mtime = static_cast<std::uint64_t>(-5);  // 1969
  add_file("a_b", fields);
  EXPECT_EQ(found("a'b"), "a'b\n");
  EXPECT_EQ(found("a[_X]?"), "aXb\na_b\n");
  EXPECT_EQ(found("' OR '1'='1"), "");
  EXPECT_EQ(found("*", "--poid " + make_poid(1)), "a'b\n");
  EXPECT_EQ(found("*", "--newer 1970-01-01T01:16:38+01:00"), "a'b\naXb\n");
  EXPECT_EQ(found("*", "--newer -6 --size >100"), "aXb\na_b\n");
  refhost::set_case_sensitive(false);  // there the star is the only wildcard
  EXPECT_EQ(found("A_*"), "a_b\n");
  EXPECT_EQ(found("a?b"), "");
  refhost::set_case_sensitive(true);
}

TEST_F(ListTest, PathsAreFoundBelowADirectoryPrintableToATerminalAndAsTheyAreToAPipe) {
  const std::string name = "a\nb\xff";
  add_file(name);
  add_directory(image_ + "/below");
  fs::copy_file(database(image_), database(image_ + "/below"));
  EXPECT_EQ(found("*"), "a\\x0ab\\xff\nbelow/a\\x0ab\\xff\n");
  EXPECT_EQ(found("*", "-0 --under " + image_ + "/below/"), "below/" + name + '\0');
}

}  // namespace
