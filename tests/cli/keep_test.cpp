// retention, journal and logs.
#include "cli/format.h"
#include "tests/cli/read_fixture.h"

namespace {

using KeepTest = CatalogTest;

TEST_F(KeepTest, ALockIsSetAndShownWithWhatRemainsOfItUnlessTheEntryIsDamaged) {
  add_file("img");
  const std::string set = "retention set " + entry_ + "--for ", show = "retention show " + entry_;
  const auto due = static_cast<std::uint64_t>(time(nullptr)) + 7776000;
  expect(cli::kDone, set + "90d --immutable");
  const auto shown = expect(cli::kDone, "--json " + show).json().at(0);
  const std::uint64_t lock = shown.value("lock_seconds", std::uint64_t{0});
  EXPECT_TRUE(lock >= due && lock < due + 60) << shown;
  EXPECT_TRUE(shown["in_force"] && shown["immutable"] && !shown["cloud"]) << shown;
  expect(cli::kLockInForce, set + "89d", "ends at " + cli::utc_time(lock));
  sql("UPDATE po SET crc = 0");
  expect(cli::kInconsistent, set + "91d", "damaged: see pocatalog verify");
}

TEST_F(KeepTest, AJournalIsAppliedAndWhatWentWrongIsTold) {
  add_file("img");
  const std::string sound = read_file(database(image_));
  const std::string apply = "journal apply " + database(image_) + " " + root_ + "/journal ";
  const std::string a = "INSERT OR REPLACE INTO registry VALUES ('a', 1);\n";
  const std::string b = "INSERT OR REPLACE INTO registry VALUES ('b', 2);\n";
  const struct {
    std::string journal, how;
    int status;
    std::string message, properties;  // that the journal added
  } cases[] = {
      {a + b, "--json", 0, "\"row_changes\":2", "a,b"},
      {a + "NO SQL;\n" + b, "", 3, "the last: NO SQL;: near \"NO\": syntax error", "a,b"},
      {"DELETE FROM registry;\n" + a, "--line-by-line", 0, "took 1", "a"},
      {a + "INSERT INTO none VALUES (1);\n" + b, "", 1, "applied: no such table: none", "a"},
      {a + "DELETE FROM registry", "", 1, "may be cut short", "NULL"},
      {a + "NO SQL;\n", "--dry-run", 3, "in part", "NULL"},
  };
  for (const auto& c : cases) {
    write_file(database(image_), sound);
    write_file(root_ + "/journal", c.journal);
    expect(c.status, apply + c.how, c.message);
    EXPECT_EQ(sql("SELECT group_concat(name) FROM registry WHERE name < 'd'"), c.properties);
  }
  fs::remove(database(image_));
  expect(cli::kFailed, apply, "there is no such database");
  EXPECT_FALSE(fs::exists(database(image_)));
}

TEST_F(KeepTest, LogsAreCleanedAndNothingOfACatalogIs) {
  add_file("img");
  const std::string logs = temp_.path("logs/"), clean = "logs clean " + logs;
  for (const std::string file : {"old", "empty", "below/old", "new"}) {
    write_file(logs + file, file == "empty" ? "" : "x");
    if (file != "new") age(logs + file);
  }
  const std::pair<std::string, std::vector<fs::path>> steps[] = {
      {" --days 0 --empty-days 5", {"below", "below/old", "new", "old"}},
      {" --days 5 --key below --recursive", {"new", "old"}},
      {" --days 5", {"new"}},
  };
  for (const auto& [how, kept] : steps) {
    expect(cli::kDone, clean + how);
    std::vector<fs::path> found;
    for (const auto& entry : snapshot(logs)) found.push_back(fs::relative(entry.first, logs));
    EXPECT_EQ(found, kept) << how;
  }
  age(database(image_));
  fs::create_directory_symlink(full(image_), logs + "link");
  for (const std::string& directory : {full(image_), root_, logs + "link"}) {
    expect(cli::kFailed, "logs clean " + directory + " --days 1 --recursive");
  }
  EXPECT_TRUE(fs::exists(database(image_)));
}

}  // namespace
