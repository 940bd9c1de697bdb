#include "po/po.h"

#include <cstdlib>
#include <memory>

#include "fixture.h"
#include "host/files.h"

namespace {

using Entries = EntryTest;
using Entry = std::unique_ptr<PO>;

TEST_F(Entries, have_the_dsid_of_their_path_and_match_patterns_as_prefixes) {
  const std::pair<const char*, unsigned int> cases[] = {
      {"/r", 0}, {"/r/", 0}, {"/r/7", 7}, {"/r/12x/a", 12}, {"/r/x7", 0}, {"/r/4294967298/a", 2}};
  for (const auto& [path, dsid] : cases) EXPECT_EQ(PO::CalculateDsid("/r", path), dsid) << path;
  for (const char* p : {"*", "ab*", "ab", "abc", ""}) EXPECT_TRUE(PO::Glob(p, "abc")) << p;
  for (const char* p : {"a*c", "ab**", "b*", "abcd"}) EXPECT_FALSE(PO::Glob(p, "abc")) << p;
}

TEST_F(Entries, are_made_from_texts_and_paths_or_throw) {
  EXPECT_EQ(FilePO("9" + file_text("f", "no poid").substr(1)).get_dsid(), 0U);
  EXPECT_EQ(POGetDsid(FilePO("/r", "prefix unread/d/f", 1234567890).record()), 1234567890U);
  EXPECT_THROW(FilePO(std::string("junk")), Cr_ErrnoException);
  EXPECT_THROW(FilePO("/r", "/r", 25), Cr_ErrnoException) << "not read past its end";
  hooks::no_records = true;
  EXPECT_THROW(FilePO{5}, Cr_ErrnoException);
  log.clear();
}

TEST_F(Entries, copied_share_nothing) {
  FilePO entry("/r", "/r/5/d/f", 5);
  EXPECT_EQ(POSetDsid(entry.record(), 6), 0);
  entry.set_udcid_record(std::make_unique<UDCIDRecord>());
  UDCIDRecord& list = *entry.get_udcid_record();
  list.ndcid = 1;
  list.owns_buffer = true;
  list.dcids = static_cast<std::uint64_t*>(std::calloc(2, sizeof(std::uint64_t)));
  list.dcids[0] = 77;
  const FilePO copy(entry);
  list.dcids[0] = 0;
  EXPECT_EQ(POSetPath(entry.record(), "/x/y"), 0);
  EXPECT_EQ(copy.get_dsid(), 6U);
  EXPECT_STREQ(POGetBasename(copy.record()), "f");
  EXPECT_EQ(copy.get_udcid_record()->dcids[0], 77U);
}

TEST_F(Entries, move_to_a_path_and_give_it_up_when_written) {
  FilePO entry(5);
  std::string path = "untouched";
  EXPECT_EQ(entry.set("/r", "9" + file_text("old").substr(1), "/r/5/f"), 0U);
  EXPECT_EQ(entry.get_path("/r", &path), 47U);
  EXPECT_EQ(path, "untouched");
  EXPECT_EQ(entry.add_info("/r", "/r/5/d/e/f", nullptr), 0U);
  EXPECT_EQ(entry.get_path("/q", &path), 0U);
  EXPECT_EQ(path, "/q/5/d/e/f");
  EXPECT_EQ(POGetDsid(entry.record()), 5U);
  EXPECT_EQ(entry.write(root.path("out")), 0U);
  EXPECT_EQ(wa_readfile(root.path("out").c_str(), &path), CR_STATUS_OK);
  EXPECT_EQ(path, text_of(file_fields("", "", 0, "")));
  EXPECT_EQ(entry.get_dsid(), 5U);
  EXPECT_EQ(entry.write(root.path("no/out")), 2U);
  log.expect_error(CR_STATUS_NOT_FOUND, "write file error " + root.path("no/out") + ", " + path);
}

TEST_F(Entries, come_from_a_factory_or_a_status_does) {
  refhost::RecordFields fields = dir_fields("d");
  fields.dsid = 9;
  const Entry directory(PO::getObject(text_of(fields), PO_STYPE_NONE));
  ASSERT_NE(dynamic_cast<DirPO*>(directory.get()), nullptr);
  EXPECT_EQ(directory->get_dsid(), 9U);
  fields.type = 2;
  const std::pair<std::string, cr_status_t> refused[] = {
      {text_of(fields), 71}, {"junk", 103}, {file_text("f", "no poid"), 103}};
  for (const auto& [text, status] : refused) {
    cell() = CR_STATUS_OK;
    EXPECT_EQ(PO::getObject(text, PO_STYPE_NONE), nullptr);
    EXPECT_EQ(cell(), status);
  }
  hooks::no_records = true;
  EXPECT_EQ(PO::getObjectWithPath("/r", "/r/5/f", 5), nullptr);
  EXPECT_EQ(cell(), CR_STATUS_NO_MEMORY);
  log.clear();
}

// Wherever memory runs out: in the host's functions, in the object, in a text.
TEST_F(Entries, come_from_a_factory_that_never_throws) {
  const std::string text = dir_text("a leaf that is longer than a short string");
  for (const bool from_text : {true, false}) {
    Entry made;
    long n = 0;
    for (; made == nullptr && n < 1000; ++n) {
      hooks::allocations_left = n;
      made.reset(from_text ? PO::getObject(text, PO_STYPE_NONE)
                           : PO::getObjectWithPath("/r", text, 5));
      hooks::allocations_left = -1;
      EXPECT_TRUE(made != nullptr || cell() == CR_STATUS_NO_MEMORY);
    }
    EXPECT_TRUE(made != nullptr && n > 2);
  }
  log.clear();
}

}  // namespace
