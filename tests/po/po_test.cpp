#include "po/po.h"

#include <memory>

#include "fixture.h"
#include "host/files.h"

namespace {

using Entries = EntryTest;

TEST_F(Entries, move_to_a_path_and_give_it_up_when_written) {
  FilePO entry(5);
  std::string path;
  EXPECT_EQ(entry.set("/r", "9" + file_text("old").substr(1), "/r/5/f"), 0U);
  EXPECT_EQ(entry.get_path("/r", &path), 47U);
  EXPECT_EQ(entry.add_info("/r", "/r/5/d/e/f", nullptr), 0U);
  EXPECT_EQ(entry.get_path("/q", &path), 0U);
  EXPECT_EQ(path, "/q/5/d/e/f");
  EXPECT_EQ(entry.write(root.path("out")), 0U);
  EXPECT_EQ(wa_readfile(root.path("out").c_str(), &path), CR_STATUS_OK);
  EXPECT_EQ(path, text_of(file_fields("", "", 0, "")));
}

TEST_F(Entries, come_from_a_factory_that_never_throws) {
  refhost::RecordFields fields = dir_fields("leaf");
  const std::unique_ptr<PO> parsed(PO::getObject(text_of(fields), PO_STYPE_NONE));
  EXPECT_NE(dynamic_cast<DirPO*>(parsed.get()), nullptr);
  const std::unique_ptr<PO> named(PO::getObjectWithPath("/r", "/r/5/no/directory", 5));
  EXPECT_NE(dynamic_cast<FilePO*>(named.get()), nullptr);
  fields.type = 2;
  const std::pair<std::string, cr_status_t> refused[] = {
      {text_of(fields), 71}, {"junk", 103}, {file_text("f", "no poid"), 103}};
  for (const auto& [text, status] : refused) {
    cell() = CR_STATUS_OK;
    EXPECT_EQ(PO::getObject(text, PO_STYPE_NONE), nullptr);
    EXPECT_EQ(cell(), status);
  }
  EXPECT_THROW(FilePO(std::string("junk")), Cr_ErrnoException);
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  log.clear();
}

}  // namespace
