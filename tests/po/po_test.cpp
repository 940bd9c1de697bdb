#include <memory>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"
#include "tests/support/spy_podb.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

// Updates of the catalog directory 5/c/d and of the file "f" in it.
class Updates : public testing::Test {
 protected:
  void TearDown() override {
    for (const PO* old : removed) delete old;
  }
  unsigned int update(refhost::RecordFields fields, char mod_type) {
    fields.dsid = 5, fields.mod_type = mod_type;
    entry.reset(PO::getObject(text_of(fields), PO_STYPE_NONE));
    return entry->update(&db, info, removed, udcid, action);
  }
  unsigned int update_dir(char mod_type, const std::string& leaf = "d",
                          const std::string& parent = "/c") {
    return update(dir_fields(leaf, parent), mod_type);
  }

  const TempDir root;
  const std::string dir = root.path("5/c/d"), file = dir + "/po.db";
  LogCapture log;
  SpyPODB db{root.path(), dir};
  ds_info_t info = {100, 10, 10};
  std::unique_ptr<PO> entry;
  std::vector<PO*> removed, udcid;
  std::string action;
};

TEST_F(Updates, make_directories_with_their_parents_and_count_new_ones) {
  const std::string record = dir + "/__dirpo__";
  DirPO stored(5);
  EXPECT_EQ(stored.load(&db, dir), 0U) << "the default";
  for (const unsigned int count : {11U, 12U}) {
    EXPECT_EQ(update_dir('N') + update_dir('N'), 0U);
    EXPECT_EQ(info.dir_count, count);
    EXPECT_EQ(read_file(record), text_of(dir_fields("", "")));
    fs::remove(record);
  }
  write_file(record, "junk");
  EXPECT_EQ(stored.load(&db, dir), 103U);
  log.clear();
}

TEST_F(Updates, remove_directories_unless_their_database_may_hold_rows) {
  const std::pair<std::string, bool> cases[] = {
      {"a row", true}, {"no row", false}, {"", false}, {"junk", true}};
  for (const auto& [content, kept] : cases) {
    EXPECT_EQ(update_dir('N'), 0U);
    EXPECT_EQ(update_dir('D', ""), 47U) << "without a name it would take its parent along";
    EXPECT_EQ(update_dir('D', "c", "/../5"), 47U) << "it would leave its data store";
    FilePO row(file_text("f"));
    const bool is_database = content == "a row" || content == "no row";
    if (!is_database) write_file(file, content);
    EXPECT_EQ(is_database ? db.put(&row) : 0, CR_STATUS_OK);
    EXPECT_EQ(is_database && !kept ? db.del("f") : 0, CR_STATUS_OK);
    info.dir_count = 10;
    EXPECT_EQ(update_dir('D'), 0U);
    EXPECT_EQ(info.dir_count, 9U);
    EXPECT_EQ(fs::exists(dir), kept) << content;
    log.clear();
    db.close_db(0);
    fs::remove_all(dir);
  }
}

enum Before { kNothing, kRow, kImmutable, kBadSum };

TEST_F(Updates, change_row_statistics_and_lists_alike) {
  const struct {
    Before before;  // a row with POID 1 and 7 bytes
    char mod_type;
    std::uint64_t poid, size;
    const char* action;
    const char* failing;  // statements that begin so answer 11
    unsigned int result;
    std::int64_t bytes, files;  // change of the statistics
    std::size_t removed;
    std::uint64_t poid_after;  // 0: no row
  } cases[] = {{kNothing, 'N', 2, 5, "", "", 0, 5, 1, 0, 2},
               {kRow, 'N', 1, 7, "", "", 0, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "", 0, -2, 0, 1, 2},
               {kBadSum, 'N', 2, 5, "", "", 0, 5, 0, 1, 2},
               {kImmutable, 'N', 2, 5, "", "", 127, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "DELETE", 11, 0, 0, 1, 1},
               {kImmutable, 'N', 2, 5, "", "SELECT", 11, 0, 0, 0, 1},
               {kNothing, 'D', 2, 5, "", "", 0, 0, 0, 0, 0},
               {kRow, 'D', 2, 4, "action_imgchk", "", 0, -4, -1, 1, 0},
               {kBadSum, 'D', 2, 5, "", "", 0, 0, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "", "", 0, -7, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "action_imgchk", "", 127, 0, 0, 0, 1}};
  refhost::RecordFields fields = file_fields("f", make_poid(1), 7, "/c/d");
  fields.content_fp = "f00d";
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    fields.poid = make_poid(1), fields.size = 7;
    fields.special_flags = c.before == kImmutable ? SF_IMMUTABLE : 0;
    EXPECT_EQ(FilePO(text_of(fields)).save(&db, ""), 0U);
    if (c.before == kNothing) raw_sql(file, "DELETE FROM po");
    if (c.before == kBadSum) raw_sql(file, "UPDATE po SET crc = 1");
    fields.poid = make_poid(c.poid), fields.size = c.size, fields.special_flags = 0;
    info = {100, 3, 10}, action = c.action, db.failing = c.failing, udcid.clear();
    const std::size_t removed_before = removed.size();
    EXPECT_EQ(update(fields, c.mod_type), c.result);
    db.failing.clear();
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, c.bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, c.files);
    EXPECT_EQ(udcid.size(), c.result == 0 && c.mod_type != 'D' ? 1U : 0U);
    EXPECT_EQ(raw_sql(file, "SELECT poid FROM po"),
              c.poid_after != 0 ? RawRows{{make_poid(c.poid_after)}} : RawRows{});
    EXPECT_EQ(removed.size() - removed_before, c.removed);
    log.clear();
  }
}

TEST(Entries, move_to_a_path_and_give_it_up_when_written) {
  const TempDir root;
  FilePO entry(5);
  std::string path;
  EXPECT_EQ(entry.set("/r", "9" + file_text("old").substr(1), "/r/5/f"), 0U);
  EXPECT_EQ(entry.get_path("/r", &path), 47U);
  EXPECT_EQ(entry.add_info("/r", "/r/5/d/e/f", nullptr), 0U);
  EXPECT_EQ(entry.get_path("/q", &path), 0U);
  EXPECT_EQ(path, "/q/5/d/e/f");
  EXPECT_EQ(entry.write(root.path("out")), 0U);
  EXPECT_EQ(read_file(root.path("out")), text_of(file_fields("", "", 0, "")));
}

TEST(Entries, are_made_of_sound_texts_and_paths_alone) {
  LogCapture log;
  refhost::RecordFields unknown = dir_fields("d");
  unknown.type = 2;
  const std::pair<std::string, cr_status_t> refused[] = {
      {text_of(unknown), 71}, {"junk", 103}, {file_text("f", "no poid"), 103}};
  for (const auto& [text, status] : refused) {
    EXPECT_EQ(PO::getObject(text, PO_STYPE_NONE), nullptr);
    EXPECT_EQ(*__cr_errno_location(), status) << text;
  }
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  log.clear();
}

}  // namespace
