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
  unsigned int update(char mod_type, const std::string& leaf = "d",
                      const std::string& parent = "/c") {
    refhost::RecordFields fields = dir_fields(leaf, parent);
    fields.dsid = 5;
    fields.mod_type = mod_type;
    const std::unique_ptr<PO> entry(PO::getObject(text_of(fields), PO_STYPE_NONE));
    return entry->update(&db, info, removed, udcid, action);
  }

  const std::string dir = root.path("5/c/d");
  const std::string record = dir + "/__dirpo__";
  SQLitePODB db{root.path(), dir};
};

TEST_F(Directories, load_a_default_for_a_missing_record_and_refuse_a_damaged_one) {
  DirPO entry(5);
  EXPECT_EQ(entry.load(&db, dir), 0U);
  EXPECT_EQ(text_of(entry.record()), "5|/c|d|1" + std::string(kDefaultDirText).substr(5));
  fs::create_directories(dir);
  std::ofstream(record) << "junk";
  EXPECT_EQ(entry.load(&db, dir), 103U);
  log.clear();
}

TEST_F(Directories, are_made_with_their_parents_and_counted_when_new) {
  for (const unsigned int count : {11U, 12U}) {
    EXPECT_EQ(update('N') + update('N'), 0U);
    EXPECT_EQ(info.dir_count, count);
    std::string text;
    EXPECT_EQ(wa_readfile(record.c_str(), &text), CR_STATUS_OK);
    EXPECT_EQ(text, text_of(dir_fields("", "")));
    fs::remove(record);
  }
}

TEST_F(Directories, are_removed_unless_their_database_may_hold_rows) {
  const std::pair<std::string, bool> cases[] = {
      {"a row", true}, {"no row", false}, {"", false}, {"junk", true}};
  for (const auto& [content, kept] : cases) {
    EXPECT_EQ(update('N'), 0U);
    EXPECT_EQ(update('D', ""), 47U) << "without a name it would take its parent along";
    EXPECT_EQ(update('D', "c", "/../5"), 47U) << "it would leave its data store";
    if (content.find("row") == std::string::npos) {
      std::ofstream(dir + "/po.db") << content;
    } else {
      EXPECT_EQ(db.put(std::make_unique<FilePO>("/r", "/r/5/f", 5).get()), CR_STATUS_OK);
      EXPECT_TRUE(kept || db.del("f") == CR_STATUS_OK);
    }
    info.dir_count = 10;
    EXPECT_EQ(update('D'), 0U);
    EXPECT_EQ(info.dir_count, 9U);
    EXPECT_EQ(fs::exists(dir), kept) << content;
    log.clear();
    db.close_db(0);
    fs::remove_all(dir);
  }
  EXPECT_EQ(update('D'), 2U);
  EXPECT_EQ(info.dir_count, 9U);
  log.clear();
}

}  // namespace
