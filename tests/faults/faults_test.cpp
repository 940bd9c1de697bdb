// Whatever fails, and wherever: nothing is lost, the status tells, and the object works on.
#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/faults/matrix.h"
#include "tests/support/raw_database.h"

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

class Environment : public testing::Environment {
 public:
  void SetUp() override {
    if (std::filesystem::exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
    use_faulty_memory();
    use_faulty_vfs();
    refhost::set_sleep([](unsigned int) {});
    refhost::set_log_level(refhost::LogLevel::Error);
    refhost::log_to_file("/dev/null");
  }
};
const auto* const environment = testing::AddGlobalTestEnvironment(new Environment);

Operation operation_named(std::string_view name) {
  const std::vector<Operation> all = operations();
  return *std::find_if(all.begin(), all.end(), [&](const Operation& o) { return o.name == name; });
}

// A tenth of the rows has enough places where memory can run out.
Operation smaller(Operation operation) {
  operation.rows = std::min(operation.rows, std::max(operation.rows / 8, 1));
  return operation;
}

class Faults : public testing::TestWithParam<Operation> {
 protected:
  template <typename List>
  static void survive(const Operation& operation, const List& faults) {
    Matrix matrix(operation);
    for (const Fault fault : faults) {
      matrix.run(fault);
      // So that nobody takes calls that are not watched for calls that do not fail.
      const bool makes_all_calls = operation.name == std::string_view("put lists");
      EXPECT_TRUE(matrix.reached(fault) || !makes_all_calls) << name_of(fault);
    }
    std::cout << matrix.figures();
    std::vector<std::string> violations = matrix.violations();
    violations.resize(std::min<std::size_t>(violations.size(), 10));  // enough to look at
    EXPECT_THAT(violations, IsEmpty());
  }
};

TEST_P(Faults, OfTheDiskAreSurvived) { survive(GetParam(), kIoFaults); }
TEST_P(Faults, OfMemoryAreSurvived) { survive(smaller(GetParam()), kMemoryFaults); }

std::string test_name(const testing::TestParamInfo<Operation>& tested) {
  std::string name = tested.param.name;
  std::replace(name.begin(), name.end(), ' ', '_');
  return name;
}
INSTANTIATE_TEST_SUITE_P(Every, Faults, testing::ValuesIn(operations()), test_name);

// The check that every harness leans on sees what it is there to see.
TEST(Intact, ReportsEachDamageAndNothingElse) {
  const struct {
    const char *file, *sql, *reported;
  } cases[] = {
      {"po.db", "UPDATE po SET poid = 'x'", "checksum of a"},
      {"po.db", "UPDATE po SET content = 'x'", "content of a"},
      {"po.db", "DROP TABLE po", "no such table"},
      {"po.db", "PRAGMA writable_schema = ON; DELETE FROM sqlite_schema WHERE name = 'po_poid'",
       "never used"},
      {"ul.db", "UPDATE utable SET udcids = x'02'", "list of p"}};
  for (const auto& c : cases) {
    const TempDir root;
    const std::string dir = root.path("5/c");
    FilePO entry(file_text("a", make_poid(1), 7, "/c"));
    ASSERT_EQ(SQLitePODB(root.path(), dir).put(&entry), CR_STATUS_OK);
    UDCIDRecord list;
    ASSERT_EQ(SQLiteULDB(dir, 0).put("p", &list, nullptr), CR_STATUS_OK);
    EXPECT_THAT(intact::faults_of(dir), IsEmpty());
    raw_sql(dir + "/" + c.file, c.sql);
    EXPECT_THAT(intact::faults_of(dir), Contains(HasSubstr(c.reported))) << c.sql;
  }
}

// What no software survives, and operations that are wrong, are seen.
TEST(FaultsThatAreNotSurvived, AreSeen) {
  Operation deaf = operation_named("put many");
  deaf.run = [](World& w, int rows) {
    static_cast<void>(operation_named("put many").run(w, rows));
    return CR_STATUS_OK;
  };
  Operation torn = operation_named("replace");
  torn.run = [](World& w, int rows) {
    const cr_status_t status = operation_named("delete").run(w, rows);
    return status == CR_STATUS_OK ? operation_named("replace").run(w, rows) : status;
  };
  static std::vector<void*> kept;
  Operation leaky = operation_named("get");
  leaky.run = [](World&, int) {
    kept.push_back(sqlite3_malloc(1));
    return kept.back() == nullptr ? CR_STATUS_FAILED : CR_STATUS_OK;
  };
  const struct {
    Operation operation;
    Fault fault;
    const char* seen;
  } cases[] = {{operation_named("put many"), Fault::SwallowedWrite, "integrity_check"},
               {smaller(deaf), Fault::DiskFull, "answers 0 and leaves other rows"},
               {smaller(torn), Fault::SqliteMemory, "answers 4 and leaves other rows"},
               {leaky, Fault::SqliteMemory, "keeps memory"}};
  for (const auto& c : cases) {
    Matrix matrix(c.operation);
    matrix.run(c.fault);
    EXPECT_THAT(matrix.violations(), Contains(HasSubstr(c.seen))) << c.operation.name;
  }
  for (void* memory : kept) sqlite3_free(memory);
}

}  // namespace
