#include "po/dir_po.h"

#include <filesystem>
#include <fstream>
#include <memory>

#include "fixture.h"
#include "host/files.h"
#include "podb/sqlite_podb.h"

namespace {

namespace fs = std::filesystem;

// The catalog directory 5/c/d.
class Directories : public EntryTest {
 protected:
  unsigned int update(char mod_type) {
    refhost::RecordFields fields = dir_fields("d", "/c");
    fields.dsid = 5;
    fields.mod_type = mod_type;
    const std::unique_ptr<PO> entry(PO::getObject(text_of(fields), PO_STYPE_NONE));
    std::vector<PO*> none;
    return entry->update(&db, info, none, none, action);
  }

  const std::string dir = root.path("5/c/d");
  const std::string record = dir + "/__dirpo__";
  SQLitePODB db{root.path(), dir};
  ds_info_t info = {1, 10, 1};
  std::string action;
};

TEST_F(Directories, load_a_default_for_a_missing_record_and_refuse_a_damaged_one) {
  DirPO entry(5);
  std::string text;
  EXPECT_EQ(entry.load(&db, dir), 0U);
  EXPECT_EQ(entry.to_string(text), 0U);
  EXPECT_EQ(text, "5|/c|d|1" + std::string(kDefaultDirText).substr(5));
  fs::create_directories(dir);
  std::ofstream(record) << file_text("f", "no poid");
  EXPECT_EQ(entry.load(root.path(), dir), 103U);
  log.expect_error(103, "can't set po [" + record + "][" + file_text("f", "no poid") + "]");
  log.clear();
}

TEST_F(Directories, without_a_name_take_nothing_along) {
  EXPECT_EQ(update('N'), 0U);
  DirPO nameless(5);
  POSetDirname(nameless.record(), "/");
  for (const char* leaf : {"", ".", ".."}) {
    POSetBasename(nameless.record(), leaf);
    refhost::RecordFields fields = refhost::get_fields(nameless.record());
    fields.type = PO_TYPE_DIR;
    fields.mod_type = 'D';
    ASSERT_EQ(refhost::set_fields(nameless.record(), fields), 0);
    std::vector<PO*> none;
    EXPECT_EQ(nameless.update(&db, info, none, none, action), 47U) << leaf;
    log.expect_error(47, "update: the directory entry has no name");
  }
  EXPECT_TRUE(fs::exists(record));
}

TEST_F(Directories, are_made_with_their_parents_and_counted_when_new) {
  EXPECT_EQ(update('N'), 0U);
  std::string text;
  EXPECT_EQ(wa_readfile(record.c_str(), &text), CR_STATUS_OK);
  EXPECT_EQ(text, text_of(dir_fields("", "")));
  EXPECT_EQ(fs::status(root.path("5")).permissions(), fs::perms::owner_all);
  EXPECT_EQ(info.dir_count, 11U);
  EXPECT_EQ(update('N'), 0U);
  EXPECT_EQ(info.dir_count, 11U);
  fs::remove(record);
  EXPECT_EQ(update('N'), 0U);
  EXPECT_EQ(info.dir_count, 12U);
  EXPECT_EQ(action, "A");
}

TEST_F(Directories, are_removed_unless_their_database_may_hold_rows) {
  const struct {
    std::string content;  // of "po.db"
    bool kept;
  } cases[] = {
      {"a row", true}, {"no row", false}, {"", false}, {"directory", true}, {"junk", true}};
  for (const auto& c : cases) {
    EXPECT_EQ(update('N'), 0U);
    FilePO file("/r", "/r/5/f", 5);
    if (c.content == "directory") {
      fs::create_directory(dir + "/po.db");
    } else if (c.content == "a row") {
      EXPECT_EQ(db.put(&file), CR_STATUS_OK);
    } else if (c.content == "no row") {
      EXPECT_EQ(db.init_db(), CR_STATUS_OK);
    } else {
      std::ofstream(dir + "/po.db") << c.content;
    }
    info.dir_count = 10;
    EXPECT_EQ(update('D'), 0U);
    EXPECT_EQ(info.dir_count, 9U);
    EXPECT_EQ(action, "D");
    EXPECT_EQ(fs::exists(dir), c.kept);
    EXPECT_EQ(log.take(refhost::LogLevel::Warning, 0, "PO databases in " + dir + " is not empty!"),
              c.kept);
    log.clear();
    db.close_db(0);
    fs::remove_all(dir);
  }
  EXPECT_EQ(update('D'), 2U);
  EXPECT_EQ(info.dir_count, 9U);
  log.expect_error(CR_STATUS_NOT_FOUND,
                   "remove: Failed to delete directory " + dir + " (No such file or directory).");
}

}  // namespace
