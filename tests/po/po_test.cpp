#include "po/po.h"

#include <memory>

#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/retention.h"
#include "podb/sqlite_podb.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace {

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

TEST(Entries, reach_their_row_by_their_path) {
  const TempDir root;
  const LogCapture log;
  const std::string path = root.path("5/f");
  SQLitePODB db(root.path(), root.path("5"));
  FilePO entry("/r", "/r/5/f", 5);
  tolvfs_worm_info_t found{};
  EXPECT_EQ(entry.save(&db, path) + entry.load(&db, path) + entry.load(&db, path, true), 0U);
  EXPECT_EQ(entry.set_retention(&db, path, RETENTION_IMMUTABLE | RETENTION_CLOUD, 0), 0U);
  EXPECT_EQ(entry.get_retention(&db, path, found), 0U);
  EXPECT_EQ(found.worm_flags, WORM_IMMUTABLE);
  EXPECT_EQ(entry.remove(&db, path), 71U) << "rows are deleted by their names alone";
  EXPECT_TRUE(entry.exists(&db, path));
}

TEST(Entries, are_made_of_sound_texts_and_paths_alone) {
  LogCapture log;
  refhost::RecordFields unknown = dir_fields("d");
  unknown.type = 2;
  const std::pair<std::string, cr_status_t> cases[] = {{text_of(dir_fields("d")), 0},
                                                       {text_of(unknown), 71},
                                                       {"junk", 103},
                                                       {file_text("f", "no poid"), 103}};
  for (const auto& [text, status] : cases) {
    *__cr_errno_location() = CR_STATUS_OK;
    const std::unique_ptr<PO> made(PO::getObject(text, PO_STYPE_NONE));
    EXPECT_EQ(dynamic_cast<DirPO*>(made.get()) != nullptr, status == CR_STATUS_OK) << text;
    EXPECT_EQ(*__cr_errno_location(), status) << text;
  }
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  log.clear();
}

}  // namespace
