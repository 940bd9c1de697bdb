// Whatever fails, and wherever: nothing is lost, the status tells, the object works on, and nothing
// is kept.
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

#include "refhost/control.h"
#include "tests/faults/matrix.h"
#include "tests/support/raw_database.h"

// SQLite does not wait for locks.
extern "C" __attribute__((visibility("default"))) int usleep(useconds_t) { return 0; }

namespace {

using testing::Contains;
using testing::HasSubstr;
using testing::IsEmpty;

const bool prepared = [] {
  if (std::filesystem::exists("/dev/shm")) setenv("TMPDIR", "/dev/shm", 1);
  static const TempDir own;
  setenv("TMPDIR", own.path().c_str(), 1);
  use_faulty_memory();
  refhost::set_sleep([](unsigned int) {});
  refhost::set_log_level(refhost::LogLevel::Error);
  return refhost::log_to_file("/dev/null") == CR_STATUS_OK;
}();

// SQLite has no code, or the library no status, of its own for a full disk, for files that cannot
// be opened and for SQLite's memory. A file that cannot be looked at is not opened; what a short
// read leaves is read afterwards.
const std::vector<Kind> kOfTheDisk = {
    {Fault::IoError, "I/O error", {CR_STATUS_IO_ERROR, CR_STATUS_BAD_DATA}},
    {Fault::DiskFull, "full disk", {CR_STATUS_FAILED}},
    {Fault::ShortRead, "short read", {}},
    {Fault::FailedLook, "failed look", {CR_STATUS_IO_ERROR, CR_STATUS_CORRUPT, CR_STATUS_FAILED}},
    {Fault::CannotOpen, "cannot open", {CR_STATUS_FAILED}},
    {Fault::FailedSync, "failed sync", {CR_STATUS_IO_ERROR}},
    {Fault::FailedDelete, "failed delete", {CR_STATUS_IO_ERROR}},
    {Fault::RefusedLock, "refused lock", {CR_STATUS_BUSY}}};
const std::vector<Kind> kOfMemory = {{Fault::SqliteMemory, "SQLite memory", {CR_STATUS_FAILED}},
                                     {Fault::CppMemory, "operator new", {CR_STATUS_NO_MEMORY}},
                                     {Fault::CMemory, "malloc", {CR_STATUS_NO_MEMORY}}};

// Returns what contradicts the promises.
std::vector<std::string> survive(const Operation& operation, const std::vector<Kind>& kinds) {
  Matrix matrix(operation);
  for (const Kind& kind : kinds) {
    const bool reached = !matrix.run(kind).empty();
    // So that nobody takes calls that are not watched for calls that do not fail.
    EXPECT_TRUE(reached || operation.name != std::string("put lists")) << kind.name;
  }
  std::vector<std::string> violations = matrix.violations();
  violations.resize(std::min<std::size_t>(violations.size(), 10));  // enough to look at
  return violations;
}

class Faults : public testing::TestWithParam<Operation> {};
INSTANTIATE_TEST_SUITE_P(Every, Faults, testing::ValuesIn(operations()));

TEST_P(Faults, OfTheDiskAreSurvived) { EXPECT_THAT(survive(GetParam(), kOfTheDisk), IsEmpty()); }

TEST_P(Faults, OfMemoryAreSurvived) {
  Operation smaller = GetParam();  // which has enough places where memory can run out
  smaller.rows = std::max(smaller.rows / 6, 1);
  EXPECT_THAT(survive(smaller, kOfMemory), IsEmpty());
}

// The check that every harness leans on sees what it is there to see.
TEST(Intact, ReportsEachDamageAndNothingElse) {
  const char* const cases[][3] = {
      {"/po.db", "UPDATE po SET poid = 'x'", "checksum of old0"},
      {"/po.db", "UPDATE po SET content = 'x'", "content of old0"},
      {"/po.db", "DROP TABLE po", "no such table"},
      {"/po.db", "PRAGMA writable_schema = ON; DELETE FROM sqlite_schema WHERE name = 'po_poid'",
       "never used"},
      {"/ul.db", "UPDATE utable SET udcids = x'02'", "list of a"}};
  for (const auto& [file, sql, reported] : cases) {
    const TempDir root;
    World world(root.path());
    operation_named("put").prepare(world, 1);
    EXPECT_THAT(intact::faults_of(world.dir), IsEmpty());
    raw_sql(world.dir + file, sql);
    EXPECT_THAT(intact::faults_of(world.dir), Contains(HasSubstr(reported))) << sql;
  }
}

// What no software survives, and operations that are wrong, are seen.
TEST(FaultsThatAreNotSurvived, AreSeen) {
  const Operation many = operation_named("put many"), replace = operation_named("replace");
  Operation deaf = many, torn = replace, leaky = operation_named("get");
  deaf.run = [&](World& w, int rows) { return many.run(w, rows), CR_STATUS_OK; };
  torn.run = [&](World& w, int rows) { return w.po().del("old0") + replace.run(w, rows); };
  std::vector<std::ifstream> kept;
  leaky.run = [&](World&, int) { return kept.emplace_back("/dev/null"), CR_STATUS_OK; };
  const std::tuple<Operation, Kind, const char*> cases[] = {
      {many, {Fault::SwallowedWrite, "swallowed write", {}}, "po.db: "},
      {deaf, {Fault::DiskFull, "full disk", {}}, "0 and leaves other rows"},
      {torn, {Fault::SqliteMemory, "memory", {CR_STATUS_FAILED}}, "4 and leaves other rows"},
      {leaky, {Fault::CppMemory, "memory", {}}, "holds"}};
  for (const auto& [operation, kind, seen] : cases) {
    EXPECT_THAT(survive(operation, {kind}), Contains(HasSubstr(seen))) << operation.name;
  }
}

}  // namespace
