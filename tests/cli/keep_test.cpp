#include <unistd.h>

#include <functional>

#include "cli/format.h"
#include "cli/period.h"
#include "tests/cli/keep_fixture.h"

namespace {

namespace fs = std::filesystem;

// Runs `act` where the permissions of files count, also when the tests run as root.
Outcome as_nobody(const std::function<Outcome()>& act) {
  constexpr uid_t kNobody = 65534;
  const bool root = geteuid() == 0;
  EXPECT_EQ(root ? setresuid(kNobody, kNobody, 0) : 0, 0);
  Outcome outcome = act();
  EXPECT_EQ(root ? setresuid(0, 0, 0) : 0, 0);
  return outcome;
}

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
  EXPECT_EQ(command("retention set " + entry_ + "--for 90d --immutable").status, cli::kDone);
  const nlohmann::json shown = show();
  const std::uint64_t lock = shown.value("lock_seconds", std::uint64_t{0});
  EXPECT_TRUE(lock >= due && lock < due + 60) << shown;
  EXPECT_TRUE(shown["in_force"] && shown["immutable"] && !shown["cloud"]) << shown;
  const Outcome shorter = command("retention set " + entry_ + "--for 89d");
  EXPECT_EQ(shorter.status, cli::kLockInForce);
  EXPECT_NE(shorter.err.find("ends at " + cli::utc_time(lock)), std::string::npos) << shorter.err;
  EXPECT_EQ(command("retention set " + entry_ + "--for 9223372036854775807s").status, cli::kFailed);
}

TEST_F(KeepTest, ALockOnADamagedEntryIsNeitherShownNorSet) {
  add_file("img");
  sql("UPDATE po SET crc = 0");
  for (const std::string& how : {"show " + entry_, "set " + entry_ + "--for 1d"}) {
    const Outcome outcome = command("retention " + how);
    EXPECT_EQ(outcome.status, cli::kInconsistent);
    EXPECT_NE(outcome.err.find("damaged: see pocatalog verify"), std::string::npos) << outcome.err;
  }
}

TEST_F(KeepTest, AJournalIsAppliedAndWhatWentWrongIsTold) {
  add_file("img");
  const std::string sound = read(database(image_));
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
    write(database(image_), sound);
    write(root_ + "/journal", c.journal);
    const Outcome outcome = command(apply + c.how);
    EXPECT_EQ(outcome.status, c.status) << c.journal;
    EXPECT_NE((outcome.out + outcome.err).find(c.message), std::string::npos) << outcome.err;
    EXPECT_EQ(sql("SELECT ifnull(group_concat(name), '') FROM registry WHERE name < 'd'"),
              c.properties);
  }
  fs::remove(database(image_));
  EXPECT_NE(command(apply).err.find("there is no such database"), std::string::npos);
  EXPECT_FALSE(fs::exists(database(image_)));
  fs::create_directory(database(image_));
  EXPECT_NE(command(apply).err.find("is no file"), std::string::npos);
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
    fs::create_directories(logs + "below");
    for (const std::string& file : files) {
      write(file, file == logs + "empty" ? "" : "x");
      if (file != logs + "new") age(file);
    }
    EXPECT_EQ(command("logs clean " + logs + " " + c.how).status, c.status) << c.how;
    std::string kept;
    for (std::size_t i = 0; i < 4; ++i) kept += fs::exists(files[i]) ? "oebn"[i] : '.';
    EXPECT_EQ(kept, c.kept) << c.how;
  }
  EXPECT_EQ(command("logs clean / --days 99999 --recursive").status, cli::kUsage);
  EXPECT_EQ(command("logs clean '' --days 99999").status, cli::kUsage);
  add_file("img");
  age(database(image_));
  fs::create_directory_symlink(full(image_), root_ + "/link");
  for (const std::string& directory : {full(image_), root_, root_ + "/link", root_ + "/none"}) {
    EXPECT_EQ(command("logs clean " + directory + " --days 1 --recursive").status, cli::kFailed);
  }
  EXPECT_TRUE(fs::exists(database(image_)));
}

TEST_F(KeepTest, WhatAUserMayNotReachIsNotTakenForAbsentOrCleaned) {
  add_file("img");
  const std::string logs = root_ + "/logs";
  fs::create_directories(logs + "/below");
  write(root_ + "/journal", "SELECT 1;");
  fs::permissions(root_, fs::perms{0755});
  for (const std::string& directory : {logs + "/below", logs, full("5")}) {
    fs::permissions(directory, fs::perms{directory == full("5") ? 0U : 0555U});
  }
  const struct {
    std::string line;
    int status;
    const char* message;
  } cases[] = {
      {"retention set " + entry_ + "--for 1d", 1, "its directory cannot be reached"},
      {"journal apply " + database(image_) + " " + root_ + "/journal", 1, "cannot be reached"},
      {"logs clean " + logs + " --days 5", 3, "/logs: not cleaned"},
      {"logs clean " + logs + " --days 5 --recursive", 3, "/logs/below: not cleaned"},
  };
  for (const auto& c : cases) {
    const Outcome outcome = as_nobody([&] { return command(c.line); });
    EXPECT_EQ(outcome.status, c.status) << c.line << outcome.err;
    EXPECT_NE(outcome.err.find(c.message), std::string::npos) << outcome.err;
  }
  for (const std::string& directory : {logs, full("5")}) {
    fs::permissions(directory, fs::perms{0755});
  }
}

}  // namespace
