#include "po/file_po.h"

#include <fstream>
#include <memory>

#include "fixture.h"
#include "tests/support/raw_database.h"
#include "tests/support/spy_podb.h"

namespace {

// Updates of "f" in the catalog directory 5/c/p; its row, if there is one, has POID 1 and 7 bytes.
class Updates : public EntryTest {
 protected:
  void TearDown() override {
    release();
    EntryTest::TearDown();
  }

  static refhost::RecordFields fields(std::uint64_t poid, std::uint64_t size) {
    refhost::RecordFields f = file_fields("f", make_poid(poid), size, "/c/p");
    f.dsid = 5;
    f.content_fp = "f00d";
    return f;
  }

  void store(std::uint32_t flags = 0) {
    refhost::RecordFields old = fields(1, 7);
    old.special_flags = flags;
    FilePO row(text_of(old));
    ASSERT_EQ(row.save(&db, path), 0U);
    log.clear();
  }

  // After `allocations` more, one allocation fails.
  unsigned int update(const refhost::RecordFields& request, std::string action = "",
                      long allocations = -1) {
    entry.reset(PO::getObject(text_of(request), PO_STYPE_NONE));
    hooks::allocations_left = allocations;
    return entry->update(&db, info, removed, udcid, action);
  }

  void release() {
    for (PO* old : removed) delete old;
    removed.clear();
    udcid.clear();
  }

  const std::string dir = root.path("5/c/p");
  const std::string path = dir + "/f";
  SpyPODB db{root.path(), dir};
  ds_info_t info = {};
  std::vector<PO*> removed, udcid;
  std::unique_ptr<PO> entry;
};

enum Before { kNothing, kRow, kImmutable, kBadSum, kBadPoid };

TEST_F(Updates, change_row_statistics_and_lists_alike) {
  const struct {
    Before before;
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
               {kBadPoid, 'N', 2, 5, "", "", 0, 5, 0, 1, 2},
               {kImmutable, 'N', 2, 5, "", "", 127, 0, 0, 0, 1},
               {kImmutable, 'N', 1, 7, "", "", 127, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "DELETE", 11, 0, 0, 1, 1},
               {kRow, 'N', 2, 5, "", "INSERT", 11, -7, 0, 1, 0},
               {kImmutable, 'N', 2, 5, "", "SELECT COUNT", 11, 0, 0, 0, 1},
               {kImmutable, 'N', 2, 5, "", "SELECT basename", 11, 0, 0, 0, 1},
               {kNothing, 'D', 2, 5, "", "", 0, 0, 0, 0, 0},
               {kRow, 'D', 2, 0, "action_imgchk", "", 0, -7, -1, 1, 0},
               {kRow, 'D', 2, 4, "", "", 0, -4, -1, 1, 0},
               {kBadSum, 'D', 2, 5, "", "", 0, 0, -1, 1, 0},
               {kBadPoid, 'D', 2, 5, "action_imgchk", "", 0, 0, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "", "", 0, -7, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "action_imgchk", "", 127, 0, 0, 0, 1},
               {kRow, 'D', 2, 0, "", "DELETE", 11, 0, 0, 1, 1},
               {kRow, 'D', 2, 0, "", "SELECT basename", 11, 0, 0, 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "case " << &c - cases);
    store(c.before == kImmutable ? SF_IMMUTABLE : 0);
    if (c.before == kNothing) raw_sql(dir + "/po.db", "DELETE FROM po");
    if (c.before == kBadSum) raw_sql(dir + "/po.db", "UPDATE po SET crc = 1");
    if (c.before == kBadPoid) {  // its size can be read, and is not believed
      const std::string content = file_text("f", "x", 7);
      raw_sql(dir + "/po.db", "UPDATE po SET poid = '', content = '" + content + "', crc = " +
                                  std::to_string(SpyPODB::calculate_crc("f", "", content.c_str())));
    }
    refhost::RecordFields request = fields(c.poid, c.size);
    request.mod_type = c.mod_type;
    info = {100, 3, 10};
    db.failing = c.failing;
    EXPECT_EQ(update(request, c.action), c.result);
    db.failing.clear();
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, c.bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, c.files);
    EXPECT_EQ(udcid.size(), c.result == 0 && c.mod_type != 'D' ? 1U : 0U);
    const RawRows after = raw_sql(dir + "/po.db", "SELECT poid FROM po");
    EXPECT_EQ(after, c.poid_after != 0 ? RawRows{{make_poid(c.poid_after)}} : RawRows{});
    ASSERT_EQ(removed.size(), c.removed);
    std::string old_path = path;
    EXPECT_EQ(removed.empty() ? 0U : removed[0]->get_path(root.path(), &old_path), 0U);
    EXPECT_EQ(old_path, path);
    EXPECT_EQ(log.take(refhost::LogLevel::Error, 127, "can't delete immutable image."),
              c.result == 127);
    log.clear();
    release();
  }
}

TEST_F(Updates, say_what_they_do) {
  store();
  EXPECT_EQ(update(fields(1, 7)), 0U);
  log.expect_info(0, "PO " + path + " exists in database.");
  log.expect_warning(0, "The same PO is being updated: " + path +
                            ". It usually happens when the agent is retrying the addlist "
                            "operation. Should not remove and deref the existing PO and DO");
  EXPECT_EQ(db.count_of("DELETE"), 0);
  EXPECT_EQ(update(fields(2, 5)), 0U);
  log.expect_info(0, "Remove existing PO " + path + " from database succeed.");
  EXPECT_TRUE(FilePO::hasData(removed.back()));
  std::string action;
  EXPECT_EQ(FilePO(dir_text("d")).update(&db, info, removed, udcid, action), 103U);
  log.expect_error(CR_STATUS_BAD_RECORD, "update: unexpected PO type 1");
}

// Every allocation of a replacement fails once; the leak checker counts.
TEST_F(Updates, lose_nothing_when_memory_or_records_run_out) {
  bool done = false;
  for (long n = 0; !done; ++n) {
    store();
    const unsigned int result = update(fields(2, 5), "", n);
    done = hooks::allocations_left >= 0;
    hooks::allocations_left = -1;
    EXPECT_TRUE(result == 0 || (result == 22 && !done)) << n;
    release();
  }
  EXPECT_EQ(POSetPath(entry->record(), "/c/p/f"), 0);
  hooks::no_records = true;
  std::string action;
  EXPECT_THROW(entry->update(&db, info, removed, udcid, action), Cr_ErrnoException);
  log.clear();
}

}  // namespace
