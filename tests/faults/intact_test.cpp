// The check that every harness leans on sees what it is there to see.
#include "tests/support/intact.h"

#include <gmock/gmock.h>

#include "po/file_po.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/temp_dir.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

struct Damage {
  const char* file;
  const char* sql;
  const char* reported;
};

void PrintTo(const Damage& damage, std::ostream* out) { *out << damage.sql; }

class DamageIsFound : public testing::TestWithParam<Damage> {};

TEST_P(DamageIsFound, AndNothingElseIs) {
  const TempDir root;
  const std::string dir = root.path("5/c");
  LogCapture log;
  {
    SQLitePODB po(root.path(), dir);
    FilePO entry(file_text("a", make_poid(1), 7, "/c"));
    ASSERT_EQ(po.put(&entry), CR_STATUS_OK);
    SQLiteULDB ul(dir, 0);
    UDCIDRecord list;
    ASSERT_EQ(ul.put("p", &list, nullptr), CR_STATUS_OK);
  }
  EXPECT_THAT(intact::faults_of(dir), IsEmpty());
  raw_sql(dir + "/" + GetParam().file, GetParam().sql);
  EXPECT_THAT(intact::faults_of(dir), Contains(HasSubstr(GetParam().reported)));
  log.clear();
}

INSTANTIATE_TEST_SUITE_P(
    Intact, DamageIsFound,
    testing::Values(
        Damage{"po.db", "UPDATE po SET poid = 'x'", "checksum of a"},
        Damage{"po.db", "UPDATE po SET content = 'x'", "content of a"},
        Damage{"po.db", "DROP TABLE po", "no such table"},
        Damage{"po.db",
               "PRAGMA writable_schema = ON; DELETE FROM sqlite_schema WHERE name = 'po_poid'",
               "never used"},
        Damage{"ul.db", "UPDATE utable SET udcids = x'02'", "list of p"}));

}  // namespace
