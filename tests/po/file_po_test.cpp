#include "po/file_po.h"

#include <memory>

#include "fixture.h"
#include "tests/support/raw_database.h"
#include "tests/support/spy_podb.h"

namespace {

// Updates of "f" in the catalog directory 5/c/p; its row, if there is one, has POID 1 and 7 bytes.
class Updates : public EntryTest {
 protected:
  static refhost::RecordFields fields(std::uint64_t poid, std::uint64_t size, char mod_type = 'N') {
    refhost::RecordFields f = file_fields("f", make_poid(poid), size, "/c/p");
    f.dsid = 5;
    f.content_fp = "f00d";
    f.mod_type = mod_type;
    return f;
  }
  void store(std::uint32_t flags = 0) {
    refhost::RecordFields old = fields(1, 7);
    old.special_flags = flags;
    EXPECT_EQ(FilePO(text_of(old)).save(&db, ""), 0U);
  }
  // After `allocations` more, one allocation fails.
  unsigned int update(const refhost::RecordFields& request, long allocations = -1) {
    entry.reset(PO::getObject(text_of(request), PO_STYPE_NONE));
    for (const PO* old : removed) delete old;
    removed.clear(), udcid.clear();
    allocations_left = allocations;
    return entry->update(&db, info, removed, udcid, action);
  }
  const std::string dir = root.path("5/c/p");
  SpyPODB db{root.path(), dir};
  std::unique_ptr<PO> entry;
};

enum Before { kNothing, kRow, kImmutable, kBadSum };

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
               {kImmutable, 'N', 2, 5, "", "", 127, 0, 0, 0, 1},
               {kRow, 'N', 2, 5, "", "DELETE", 11, 0, 0, 1, 1},
               {kRow, 'N', 2, 5, "", "INSERT", 11, -7, 0, 1, 0},
               {kImmutable, 'N', 2, 5, "", "SELECT COUNT", 11, 0, 0, 0, 1},
               {kImmutable, 'N', 2, 5, "", "SELECT basename", 11, 0, 0, 0, 1},
               {kNothing, 'D', 2, 5, "", "", 0, 0, 0, 0, 0},
               {kRow, 'D', 2, 4, "action_imgchk", "", 0, -4, -1, 1, 0},
               {kBadSum, 'D', 2, 5, "", "", 0, 0, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "", "", 0, -7, -1, 1, 0},
               {kImmutable, 'D', 2, 0, "action_imgchk", "", 127, 0, 0, 0, 1},
               {kRow, 'D', 2, 0, "", "SELECT basename", 11, 0, 0, 0, 1}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    store(c.before == kImmutable ? SF_IMMUTABLE : 0);
    if (c.before == kNothing) raw_sql(dir + "/po.db", "DELETE FROM po");
    if (c.before == kBadSum) raw_sql(dir + "/po.db", "UPDATE po SET crc = 1");
    info = {100, 3, 10};
    action = c.action;
    db.failing = c.failing;
    EXPECT_EQ(update(fields(c.poid, c.size, c.mod_type)), c.result);
    db.failing.clear();
    EXPECT_EQ(static_cast<std::int64_t>(info.total_size) - 100, c.bytes);
    EXPECT_EQ(static_cast<std::int64_t>(info.file_count) - 10, c.files);
    EXPECT_EQ(udcid.size(), c.result == 0 && c.mod_type != 'D' ? 1U : 0U);
    EXPECT_EQ(raw_sql(dir + "/po.db", "SELECT poid FROM po"),
              c.poid_after != 0 ? RawRows{{make_poid(c.poid_after)}} : RawRows{});
    ASSERT_EQ(removed.size(), c.removed);
    for (const PO* old : removed) EXPECT_STREQ(POGetBasename(old->record()), "f");
    log.clear();
  }
}

// Every allocation of a replacement fails once; the leak checker counts.
TEST_F(Updates, lose_nothing_when_memory_runs_out) {
  bool done = false;
  for (long n = 0; !done; ++n) {
    store();
    const unsigned int result = update(fields(2, 5), n);
    done = allocations_left >= 0;
    allocations_left = -1;
    EXPECT_TRUE(result == 0 || (result == 22 && !done)) << n;
  }
  log.clear();
}

}  // namespace
