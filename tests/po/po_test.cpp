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

// Wherever memory runs out: in the host's functions, in the object, in a text.
TEST_F(Entries, come_from_a_factory_that_never_throws) {
  refhost::RecordFields fields = dir_fields("a leaf that is longer than a short string");
  for (const bool from_text : {true, false}) {
    const std::string text = text_of(fields);
    std::unique_ptr<PO> made;
    for (long n = 0; made == nullptr && n < 1000; ++n) {
      allocations_left = n;
      made.reset(from_text ? PO::getObject(text, PO_STYPE_NONE)
                           : PO::getObjectWithPath("/r", text, 5));
      allocations_left = -1;
      EXPECT_TRUE(made != nullptr || cell() == CR_STATUS_NO_MEMORY);
    }
    EXPECT_EQ(dynamic_cast<DirPO*>(made.get()) != nullptr, from_text);
  }
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
