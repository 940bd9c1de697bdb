#include <memory>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/retention.h"
#include "podb/sqlite_podb.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace {

// Updates of the catalog directory 5/c/d and of the file "f" in it.
class Updates : public testing::Test {
 protected:
  void TearDown() override {
    for (const PO* old : removed) delete old;
  }
  unsigned int update(refhost::RecordFields fields, char mod_type) {
    fields.dsid = 5;
    fields.mod_type = mod_type;
    entry.reset(PO::getObject(text_of(fields), PO_STYPE_NONE));
    return entry->update(&db, info, removed, udcid, action);
  }
  unsigned int update_dir(char mod_type, const std::string& leaf = "d",
                          const std::string& parent = "/c") {
    return update(dir_fields(leaf, parent), mod_type);
  }

  const TempDir root;
  const std::string dir = root.path("5/c/d"), file = dir + "/po.db";
  LogCapture log{refhost::LogLevel::Trace};
  SQLitePODB db{root.path(), dir};
  ds_info_t info = {100, 10, 10};
  std::unique_ptr<PO> entry;
  std::vector<PO*> removed, udcid;
  std::string action;
};

TEST_F(Updates, make_directories_and_remove_them_unless_their_database_may_hold_rows) {
  const std::pair<std::string, bool> cases[] = {{"a row", true}, {"", false}, {"junk", true}};
  for (const auto& [content, kept] : cases) {
    EXPECT_EQ(update_dir('N') + update_dir('N'), 0U);
    EXPECT_EQ(info.dir_count, 11U) << "a new one counts once";
    EXPECT_EQ(read_file(dir + "/__dirpo__"), text_of(dir_fields("", "")));
    EXPECT_EQ(update_dir('D', ""), 47U) << "without a name it would take its parent along";
    EXPECT_EQ(update_dir('D', "c", "/../5"), 47U) << "it would leave its data store";
    FilePO row(file_text("f"));
    if (content != "a row") write_file(file, content);
    EXPECT_EQ(content == "a row" ? db.put(&row) : 0, CR_STATUS_OK);
    EXPECT_EQ(update_dir('D'), 0U);
    EXPECT_EQ(info.dir_count, 10U);
    EXPECT_EQ(std::filesystem::exists(dir), kept) << content;
    log.clear();
    db.close_db(0);
    std::filesystem::remove_all(dir);
  }
}

enum Before { kNothing, kRow, kImmutable, kBadSum };

TEST_F(Updates, change_row_statistics_and_lists_alike) {
  const struct {
    Before before;  // a row with POID 1 and 7 bytes
    char mod_type;
    std::uint64_t poid, size;
    const char* action;
    unsigned int result;
    std::int64_t bytes, files;  // change of the statistics
    std::size_t removed;
    std::uint64_t poid_after;  // 0: no row
  } cases[] = {{kNothing, 'N', 2, 5, "", 0, 5, 1, 0, 2},
               {kRow, 'N', 1, 7, "", 0, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", 0, -2, 0, 1, 2},
               {kBadSum, 'N', 2, 5, "", 0, 5, 0, 1, 2},
               {kImmutable, 'N', 2, 5, "", 127, 0, 0, 0, 1},
               {kNothing, 'D', 2, 5, "", 0, 0, 0, 0, 0},
               {kRow, 'D', 2, 4, "action_imgchk", 0, -4, -1, 1, 0},
               {kBadSum, 'D', 2, 5, "", 0, 0, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "", 0, -7, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "action_imgchk", 127, 0, 0, 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    refhost::RecordFields old = file_fields("f", make_poid(1), 7, "/c/d");
    old.content_fp = "f00d";
    old.special_flags = c.before == kImmutable ? SF_IMMUTABLE : 0;
    EXPECT_EQ(FilePO(text_of(old)).save(&db, ""), 0U);
    if (c.before == kNothing) raw_sql(file, "DELETE FROM po");
    if (c.before == kBadSum) raw_sql(file, "UPDATE po SET crc = 1");
    refhost::RecordFields incoming = file_fields("f", make_poid(c.poid), c.size, "/c/d");
    incoming.content_fp = "f00d";
    info = {100, 3, 10};
    action = c.action;
    udcid.clear();
    const std::size_t removed_before = removed.size();
    EXPECT_EQ(update(incoming, c.mod_type), c.result);
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, c.bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, c.files);
    EXPECT_EQ(udcid.size(), c.result == 0 && c.mod_type != 'D' ? 1U : 0U);
    EXPECT_EQ(raw_sql(file, "SELECT poid FROM po"),
              c.poid_after != 0 ? RawRows{{make_poid(c.poid_after)}} : RawRows{});
    EXPECT_EQ(removed.size() - removed_before, c.removed);
    log.clear();
  }
}

using Entries = Updates;

TEST_F(Entries, reach_their_row_by_their_path_and_take_no_other) {
  const std::string path = dir + "/f";
  FilePO row(root.path(), path, 5);
  DirPO parent(5);
  tolvfs_worm_info_t found{};
  EXPECT_EQ(row.get_path("/q", &action) + row.save(&db, path) + row.get_path("/q", &action), 47U);
  EXPECT_EQ(action, "/q/5/c/d/f") << "until it is stored";
  EXPECT_EQ(row.load(&db, path) + row.load(&db, path, true) + parent.load(&db, dir), 0U);
  EXPECT_EQ(row.set_retention(&db, path, RETENTION_IMMUTABLE | RETENTION_CLOUD, 0), 0U);
  EXPECT_EQ(row.get_retention(&db, path, found), 0U);
  EXPECT_EQ(row.remove(&db, path), 71U) << "rows are deleted by their names alone";
  EXPECT_EQ(parent.save(&db, file + "/d") + parent.load(&db, file), 8U);
  EXPECT_EQ(FilePO(row).write(dir) + row.set(root.path(), "junk", path), 4U + 103U);
  EXPECT_TRUE(PO::Glob("f*", "foo") && !FilePO::hasData(&row) && PO::CalculateDsid("/r", "") == 0);
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  log.clear();
}

}  // namespace
