#include <memory>

#include "po/dir_po.h"
#include "podb/retention.h"
#include "tests/podb/fixture.h"

namespace {

// Updates of the catalog directory 5/c/p and of the file "f" in it.
class Updates : public StoreTest {
 protected:
  Updates() { refhost::set_log_level(refhost::LogLevel::Trace); }
  void TearDown() override {
    for (const PO* old : removed) delete old;
  }
  unsigned int update(refhost::RecordFields fields, char mod_type) {
    fields.dsid = 5;
    fields.mod_type = mod_type;
    entry.reset(PO::getObject(text_of(fields), PO_STYPE_NONE));
    return entry->update(&db, info, removed, udcid, action);
  }
  unsigned int update_dir(char mod_type, const std::string& leaf = "p",
                          const std::string& parent = "/c") {
    return update(dir_fields(leaf, parent), mod_type);
  }

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
    EXPECT_EQ(update_dir('D', "") + update_dir('D', "."), 2 * 47U) << "it would take its parent";
    EXPECT_EQ(update_dir('D', "c", "/../5"), 47U) << "it would leave its data store";
    FilePO row(file_text("f"));
    if (content != "a row") write_file(file, content);
    EXPECT_EQ(content == "a row" ? db.put(&row) : 0, CR_STATUS_OK);
    EXPECT_EQ(update_dir('D'), 0U);
    EXPECT_EQ(info.dir_count, 10U);
    EXPECT_EQ(std::filesystem::exists(dir), kept) << content;
    db.close_db(0);
    std::filesystem::remove_all(dir);
    EXPECT_TRUE(update_dir('D') == 2 && info.dir_count == 10 && !entry->udcid_qualified());
    log.clear();
  }
}

enum Before { kNothing, kRow, kImmutable, kBadSum };

TEST_F(Updates, change_row_statistics_and_lists_alike) {
  EXPECT_EQ(update(file_fields("f"), 'N'), 0U) << "there is no database yet";
  // Before, code, POID and size of the update, action; result, change of bytes and files, entries
  // removed, POID afterwards (0: no row). The row before has POID 1 and 7 bytes.
  const std::tuple<Before, char, unsigned, unsigned, const char*, unsigned, int, int, unsigned,
                   unsigned>
      cases[] = {{kNothing, 'N', 2, 5, "", 0, 5, 1, 0, 2},
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
    const auto& [before, code, poid, size, act, result, bytes, files, gone, poid_after] = c;
    refhost::RecordFields old = file_fields("f", make_poid(1), 7, "/c/p");
    old.content_fp = "f00d";
    old.special_flags = before == kImmutable ? SF_IMMUTABLE : 0;
    EXPECT_EQ(FilePO(text_of(old)).save(&db, ""), 0U);
    if (before == kNothing) raw_sql(file, "DELETE FROM po");
    if (before == kBadSum) raw_sql(file, "UPDATE po SET crc = 1");
    refhost::RecordFields incoming = file_fields("f", make_poid(poid), size, "/c/p");
    incoming.content_fp = "f00d";
    info = {100, 3, 10}, action = act, udcid.clear();
    const std::size_t removed_before = removed.size();
    EXPECT_EQ(update(incoming, code), result);
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, files);
    EXPECT_EQ(udcid.size(), result == 0 && code != 'D' ? 1U : 0U);
    EXPECT_EQ(raw_sql(file, "SELECT poid FROM po"),
              poid_after != 0 ? RawRows{{make_poid(poid_after)}} : RawRows{});
    EXPECT_EQ(removed.size() - removed_before, gone);
    log.clear();
  }
}

using Entries = Updates;

TEST_F(Entries, tell_what_they_hold_and_have_copies_of_their_own) {
  refhost::RecordFields fields = file_fields("f", make_poid(1), 7, "/c/p");
  fields.special_fp = "f00d";
  FilePO full(text_of(fields));
  full.set_udcid_record(std::make_unique<UDCIDRecord>());
  const boost::intrusive_ptr<PO> copy(new FilePO(full));
  const UDCIDRecord* list = boost::intrusive_ptr<PO>(copy)->get_udcid_record();
  EXPECT_TRUE(list != nullptr && list != full.get_udcid_record());
  EXPECT_EQ(copy->get_logstr() + copy->GetLocalDirName(), text_of(fields) + "/c/p");
  unsigned int moved = 6;
  copy->set_status(po_status_t{3});
  EXPECT_TRUE(copy->add_info("", "/0/g", &moved) == 0 && copy->get_dsid() == 6);
  EXPECT_EQ(copy->to_string(action), 0U);
  fields.dsid = 6, fields.directory = "/", fields.leaf = "g", fields.status = 3;
  EXPECT_EQ(action, text_of(fields));
  EXPECT_EQ(copy->get_logstr(), full.get_logstr()) << "as it was";
  const std::unique_ptr<PO> found(PO::getObjectWithPath("", root.path(), 5));
  EXPECT_TRUE(dynamic_cast<DirPO*>(found.get()) && FilePO::hasData(&full) &&
              !FilePO::hasData(nullptr) && PO::Glob("", "f") && !PO::Glob("g", "f"));
  EXPECT_EQ(full.get_path("", nullptr) + DirPO(5).get_size(), 9U);
}

TEST_F(Entries, reach_their_row_by_their_path_and_take_no_other) {
  const std::string path = dir + "/f";
  FilePO row(root.path(), path, 5);
  DirPO parent(5);
  tolvfs_worm_info_t found{};
  EXPECT_EQ(row.get_path("/q", &action) + row.save(&db, path) + row.get_path("/q", &action), 47U);
  EXPECT_EQ(action, "/q/5/c/p/f") << "until it is stored";
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
