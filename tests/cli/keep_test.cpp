#include "cli/format.h"
#include "cli/period.h"
#include "tests/cli/read_fixture.h"

namespace {

TEST(Periods, AreWholeNumbersOfAUnitWithinTheRange) {
  const std::vector<std::pair<std::string, std::int64_t>> periods = {
      {"90s", 90}, {"15m", 900}, {"6h", 21600}, {"15250284452471w", 9223372036854460800}};
  for (const auto& [text, seconds] : periods) EXPECT_EQ(cli::parse_period(text), seconds) << text;
  for (const char* text : {"", "s", "0s", "-1s", "1", "1y", "1ss", "15250284452472w"}) {
    EXPECT_FALSE(cli::parse_period(text)) << text;
  }
}

TEST_F(KeepTest, ALockIsSetAndShownWithWhatRemainsOfIt) {
  add_file("img");
  const auto show = [&] { return command("--json retention show " + entry_).json().at(0); };
  EXPECT_FALSE(show().contains("lock"));
  const auto due = static_cast<std::uint64_t>(time(nullptr)) + 7776000;
  expect(cli::kDone, "retention set " + entry_ + "--for 90d --immutable");
  const nlohmann::json shown = show();
  const std::uint64_t lock = shown.value("lock_seconds", std::uint64_t{0});
  EXPECT_TRUE(lock >= due && lock < due + 60) << shown;
  EXPECT_TRUE(shown["in_force"] && shown["immutable"] && !shown["cloud"]) << shown;
  expect(cli::kLockInForce, "retention set " + entry_ + "--for 89d",
         "ends at " + cli::utc_time(lock));
  expect(cli::kFailed, "retention set " + entry_ + "--for 9223372036854775807s");
}

TEST_F(KeepTest, ALockOnADamagedEntryIsNeitherShownNorSet) {
  add_file("img");
  sql("UPDATE po SET crc = 0");
  for (const std::string& how : {"show " + entry_, "set " + entry_ + "--for 1d"}) {
    expect(cli::kInconsistent, "retention " + how, "damaged: see pocatalog verify");
  }
}

TEST_F(KeepTest, AJournalIsAppliedAndWhatWentWrongIsTold) {
  add_file("img");
  const std::string sound = read_file(database(image_));
  const std::string apply = "journal apply " + database(image_) + " " + root_ + "/journal ";
  const std::string a = "INSERT OR REPLACE INTO registry VALUES ('a', 1);\n";
  const std::string b = "INSERT OR REPLACE INTO registry VALUES ('b', 2);\n";
  const struct {
    std::string journal;
    const char* how;
    int status;
    const char* message;
    const char* properties;  // that the journal added
  } cases[] = {
      {a + b, "--json", 0, "\"row_changes\":2", "a,b"},
      {a + "NO SQL;\n" + b, "", 3, "the last: NO SQL;: near \"NO\": syntax error", "a,b"},
      {"no statement", "--line-by-line", 3, "holds no ';'", ""},
      {"DELETE FROM registry;\n" + a, "--line-by-line", 0, "took 1", "a"},
      {a + "BEGIN;\n" + b + "END;\n", "--line-by-line", 1, "left a transaction open", "a"},
      {a + "INSERT INTO none VALUES (1);\n" + b, "", 1, "applied: no such table: none", "a"},
      {"SELECT * FROM none;\n", "--line-by-line", 1, "SELECT * FROM none;: no such table", ""},
      {std::string("SELECT 1;\0DROP TABLE po;", 24), "", 1, "NUL", ""},
      {a + "DELETE FROM registry", "", 1, "may be cut short", ""},
      {a + "DELETE FROM registry", "--line-by-line", 0, "took 1", "a"},
      {a + "NO SQL;\n", "--dry-run", 3, "in part", ""},
  };
  for (const auto& c : cases) {
    write_file(database(image_), sound);
    write_file(root_ + "/journal", c.journal);
    expect(c.status, apply + c.how, c.message);
    EXPECT_EQ(sql("SELECT ifnull(group_concat(name), '') FROM registry WHERE name < 'd'"),
              c.properties);
  }
  fs::remove(database(image_));
  expect(cli::kFailed, apply, "there is no such database");
  EXPECT_FALSE(fs::exists(database(image_)));
  fs::create_directory(database(image_));
  expect(cli::kFailed, apply, "is no file");
}

TEST_F(KeepTest, LogsAreCleanedAndNothingOfACatalogIs) {
  const struct {
    const char* how;
    int status;
    const char* kept;  // old, empty, below, new
  } cases[] = {
      {"--days 5", 0, "..bn"},
      {"--days 5 --recursive", 0, "...n"},
      {"--days 0 --empty-days 5", 0, "o.bn"},
      {"--days 5 --key below --recursive", 0, "oe.n"},
      {"--days 5 --key ''", 2, "oebn"},
      {"--days 0", 2, "oebn"},
  };
  const std::string logs = root_ + "/logs/";
  const std::string files[] = {logs + "old", logs + "empty", logs + "below/old", logs + "new"};
  for (const auto& c : cases) {
    for (const std::string& file : files) {
      write_file(file, file == logs + "empty" ? "" : "x");
      if (file != logs + "new") age(file);
    }
    expect(c.status, "logs clean " + logs + " " + c.how);
    std::string kept;
    for (std::size_t i = 0; i < 4; ++i) kept += fs::exists(files[i]) ? "oebn"[i] : '.';
    EXPECT_EQ(kept, c.kept) << c.how;
  }
  expect(cli::kUsage, "logs clean / --days 99999 --recursive");
  expect(cli::kUsage, "logs clean '' --days 99999");
  add_file("img");
  age(database(image_));
  fs::create_directory_symlink(full(image_), root_ + "/link");
  for (const std::string& directory : {full(image_), root_, root_ + "/link", root_ + "/none"}) {
    expect(cli::kFailed, "logs clean " + directory + " --days 1 --recursive");
  }
  EXPECT_TRUE(fs::exists(database(image_)));
}

TEST_F(KeepTest, WhatAUserMayNotReachIsNotTakenForAbsentOrCleaned) {
  add_file("img");
  const std::string logs = root_ + "/logs";
  fs::create_directories(logs + "/below");
  write_file(root_ + "/journal", "SELECT 1;");
  for (const std::string& directory : {logs + "/below", logs, full("5")}) {
    fs::permissions(directory, fs::perms{directory == full("5") ? 0U : 0555U});
  }
  as_nobody(temp_.path(), [&] {
    expect(1, "retention set " + entry_ + "--for 1d", "its directory cannot be reached");
    expect(1, "journal apply " + database(image_) + " " + root_ + "/journal", "cannot be reached");
    expect(3, "logs clean " + logs + " --days 5", "/logs: not cleaned");
    expect(3, "logs clean " + logs + " --days 5 --recursive", "/logs/below: not cleaned");
  });
  for (const std::string& directory : {logs, full("5")}) {
    fs::permissions(directory, fs::perms{0755});
  }
}

}  // namespace
