#include "po/po.h"

#include "po/file_po.h"
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
