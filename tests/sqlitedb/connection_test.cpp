#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <filesystem>

#include "fixture.h"
#include "host/files.h"

namespace {

namespace fs = std::filesystem;
using InitDb = ConnectionTest;
using OpenDb = ConnectionTest;
using CloseDb = ConnectionTest;

TEST_F(InitDb, leaves_a_file_with_content_alone) {
  write_file("x");
  EXPECT_EQ(db.init_db(), CR_STATUS_EXISTS);
  EXPECT_FALSE(db.has_handle());
}

TEST_F(InitDb, takes_an_empty_file_and_lays_out_its_schema) {
  write_file("");
  db.schema = [&] { return db.exec("CREATE TABLE t (a)", nullptr); };
  EXPECT_EQ(db.init_db(), CR_STATUS_OK);
  EXPECT_TRUE(db.is_open());
  EXPECT_EQ(hooks::state.busy_timeout, 10000);
  EXPECT_GT(fs::file_size(file), 0U);
  db.schema = [] { return CR_STATUS_FAILED; };
  EXPECT_EQ(db.init_db(), CR_STATUS_OK) << "an open connection is not laid out again";
}

TEST_F(InitDb, creates_missing_directories_for_their_owner_only) {
  TestDb deep(dir.path("x/y/a.db"));
  EXPECT_EQ(deep.init_db(), CR_STATUS_OK);
  struct stat info {};
  ASSERT_EQ(stat(dir.path("x/y").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777U, 0700U);
}

TEST_F(InitDb, reports_a_directory_that_cannot_be_created) {
  write_file("in the way");
  TestDb below(file + "/sub/a.db");
  const cr_status_t own = wa_createtree((file + "/sub").c_str(), 0700);
  for (const cr_status_t mapped : {CR_STATUS_IO_ERROR, CR_STATUS_OK}) {
    hooks::state.mapped_error = mapped;
    const cr_status_t status = below.init_db();
    EXPECT_EQ(status, mapped != CR_STATUS_OK ? mapped : own);
    log.expect_error(status, "Could not create directory " + file + "/sub");
  }
}

TEST_F(InitDb, deletes_the_file_when_the_schema_fails) {
  db.schema = [] { return CR_STATUS_IO_ERROR; };
  EXPECT_EQ(db.init_db(), CR_STATUS_IO_ERROR);
  EXPECT_FALSE(db.has_handle());
  EXPECT_FALSE(fs::exists(file));

  db.schema = [&] { return fs::remove(file) ? CR_STATUS_FAILED : CR_STATUS_OK; };
  EXPECT_EQ(db.init_db(), CR_STATUS_FAILED);
  log.expect_warning(CR_STATUS_FAILED, "Could not delete bad db file " + file);
}

TEST_F(InitDb, stays_half_open_when_the_schema_throws_and_opens_afterwards) {
  db.schema = [&]() -> cr_status_t { return db.on_db_error(SQLITE_CORRUPT); };
  EXPECT_THROW(db.init_db(), sqlitedb::db_exception);
  EXPECT_TRUE(db.has_handle());
  EXPECT_FALSE(db.is_open());
  EXPECT_TRUE(fs::exists(file));
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_EQ(hooks::state.close_calls, 1);
  EXPECT_TRUE(db.is_open());
}

TEST_F(OpenDb, opens_once) {
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Open SQLite database " + file);
  EXPECT_EQ(db.open_db(), CR_STATUS_OK);
  EXPECT_TRUE(log.lines().empty());
  EXPECT_EQ(hooks::state.busy_timeout, 10000);
}

TEST_F(OpenDb, closes_again_what_cannot_be_opened) {
  EXPECT_EQ(db.open_db(dir.path()), CR_STATUS_FAILED);
  EXPECT_FALSE(db.has_handle());
  log.expect_error(CR_STATUS_FAILED, "Failed to open database " + dir.path());
}

TEST_F(OpenDb, never_answers_for_a_new_path_with_the_old_database) {
  make_table(1);
  hooks::state.close_answers = {SQLITE_MISUSE};
  EXPECT_EQ(db.open_db(dir.path("b.db")), CR_STATUS_OK);
  EXPECT_EQ(db.exec("CREATE TABLE t (b)", nullptr), CR_STATUS_OK);
  EXPECT_GT(fs::file_size(dir.path("b.db")), 0U);
  hooks::close_abandoned();
}

TEST_F(OpenDb, happens_on_demand_when_there_is_something_to_open) {
  EXPECT_EQ(db.checkopen(), CR_STATUS_NOT_FOUND);
  write_file("");
  EXPECT_EQ(db.checkopen(), CR_STATUS_BAD_DATA);
  EXPECT_TRUE(log.lines().empty());
  make_table(1);
  TestDb other(file);
  EXPECT_EQ(other.checkopen(), CR_STATUS_OK);
  EXPECT_TRUE(other.is_open());
}

TEST_F(CloseDb, retries_while_busy_and_abandons_what_stays_busy) {
  constexpr int kBusy = SQLITE_BUSY;
  const struct {
    std::deque<int> answers;
    unsigned long retries;
    int calls;
    std::size_t sleeps;
    cr_status_t status;
    bool still_open;
  } cases[] = {{{}, 3, 1, 0, CR_STATUS_OK, false},
               {{kBusy, kBusy}, 3, 3, 2, CR_STATUS_OK, false},
               {{kBusy, kBusy, kBusy, kBusy}, 3, 4, 4, CR_STATUS_OK, false},
               {{kBusy}, 0, 1, 1, CR_STATUS_OK, false},
               {{kBusy, SQLITE_MISUSE}, 3, 2, 1, CR_STATUS_FAILED, true},
               {{SQLITE_BUSY_SNAPSHOT}, 3, 1, 0, CR_STATUS_BUSY, true}};
  for (const auto& each : cases) {
    hooks::state = {};
    ASSERT_EQ(db.open_db(), CR_STATUS_OK);
    hooks::state.close_answers = each.answers;
    const FakeSleep counted;
    EXPECT_EQ(db.close_db(each.retries), each.status);
    EXPECT_EQ(hooks::state.close_calls, each.calls);
    EXPECT_EQ(counted.sleeps(), std::vector<unsigned int>(each.sleeps, 1));
    EXPECT_EQ(db.is_open(), each.still_open);
    EXPECT_EQ(db.has_handle(), each.still_open);
    if (each.calls == static_cast<int>(each.answers.size()) && !each.still_open) {
      hooks::close_abandoned();
    }
  }
}

TEST_F(CloseDb, deletes_the_file_with_a_drop) {
  make_table(1);
  EXPECT_EQ(db.drop_db(), CR_STATUS_OK);
  log.expect_info(CR_STATUS_OK, "Drop database " + file + ".");
  EXPECT_FALSE(db.has_handle());
  EXPECT_FALSE(fs::exists(file));
  EXPECT_EQ(db.drop_db(), CR_STATUS_NOT_FOUND);
  log.expect_error(CR_STATUS_NOT_FOUND, "Failed to delete database file " + file + ".");
  EXPECT_EQ(db.init_db(), CR_STATUS_OK);
}

}  // namespace
