// Whatever fails, and wherever: nothing is lost, the status tells, and the object works on.
#include <gmock/gmock.h>

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <iostream>
#include <string_view>

#include "refhost/control.h"
#include "tests/faults/matrix.h"

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
  void survive(const Operation& operation, const List& faults) {
    constexpr std::size_t kShown = 10;
    Matrix matrix(operation);
    for (const Fault fault : faults) {
      matrix.run(fault);
      // So that nobody takes calls that are not watched for calls that do not fail.
      const bool makes_all_calls = operation.name == std::string_view("put lists");
      EXPECT_TRUE(matrix.points(fault) > 0 || !makes_all_calls) << name_of(fault);
    }
    std::cout << matrix.figures();
    std::vector<std::string> violations = matrix.violations();
    violations.resize(std::min(violations.size(), kShown));
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
