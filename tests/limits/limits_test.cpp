// A full disk, no inode left, files that may not grow, no descriptor left: what is answered is what
// was done, nothing is lost or kept, and once there is room everything goes on by itself. And
// nobody closes a database beside SQLite.
#include <sys/resource.h>

#include <algorithm>
#include <csignal>

#include "tests/cli/read_fixture.h"
#include "tests/faults/fault.h"
#include "tests/support/private_mounts.h"
#include "uldb/sqlite_uldb.h"

namespace {

const std::string kDisk = "/mnt";  // the test's own, once mounted
const std::string kCatalog = kDisk + "/catalog";
const std::string kInto = " --dsid 5 --client client --policy policy ";

struct Limits {
  const char* name = nullptr;
  int ingest_ends_with = cli::kDone;
  const char* of_disk = nullptr;
  rlim_t file_size = RLIM_INFINITY;
  rlim_t free_descriptors = 1000;
};
constexpr Limits kNone = {"none", cli::kDone, "size=2m,nr_inodes=40"};

void impose(const Limits& limits) {
  const int next = dup(0);
  close(next);
  const rlimit size = {limits.file_size, RLIM_INFINITY};
  const rlimit descriptors = {static_cast<rlim_t>(next) + limits.free_descriptors, 4096};
  EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &size), 0);
  EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
  EXPECT_EQ(mount("tmpfs", kDisk.c_str(), "tmpfs", MS_REMOUNT, limits.of_disk), 0);
}

void write_source(const std::string& source, int from, int to) {
  for (int i = from; i < to; ++i) write_file(source + "/" + std::to_string(i), "content");
}

Outcome ingest(const std::string& source) {
  return command("ingest " + source + " --root " + kCatalog + kInto + "--threads 2");
}

// Verifies and lists; returns the number of names.
long look() {
  expect(cli::kDone, "verify " + kCatalog);
  const Outcome list = expect(cli::kDone, "ls " + kCatalog + " 5/client/policy");
  return std::count(list.out.begin(), list.out.end(), '\n');
}

// A first part is in the catalog; the second does not fit.
void stop_ingest(const Limits& limits) {
  constexpr int kFiles = 1500;
  SCOPED_TRACE(limits.name);
  const TempDir temp;
  impose(kNone);
  fs::remove_all(kCatalog);
  write_source(temp.path(), 0, 10);
  EXPECT_EQ(ingest(temp.path()).status, cli::kDone);
  write_source(temp.path(), 10, kFiles);
  impose(limits);
  const Outcome hindered = ingest(temp.path());
  if (limits.free_descriptors < 1000) impose(kNone);  // reading needs some
  const long names = look();
  impose(kNone);
  EXPECT_GE(names, 10) << "what was there is lost";
  EXPECT_EQ(hindered.status, limits.ingest_ends_with);
  std::printf("[ figures ] ingest, %s: status %d, %ld names; %s\n", limits.name, hindered.status,
              names, hindered.err.substr(0, hindered.err.find('\n')).c_str());
  EXPECT_EQ(ingest(temp.path()).status, cli::kDone);
  EXPECT_EQ(look(), kFiles);
}

TEST(Limits, StopIngestAndTheNextRunGoesOn) {
  in_private_mounts({kDisk}, [] {
    std::signal(SIGXFSZ, SIG_IGN);
    refhost::log_to_sink([](const refhost::LogLine&) {});
    stop_ingest({"full disk", cli::kIncomplete, "size=200k,nr_inodes=40"});
    stop_ingest({"no inode left", cli::kFailed, "size=2m,nr_inodes=11"});
    stop_ingest({"files may not grow", cli::kIncomplete, kNone.of_disk, 40000});
    stop_ingest({"no descriptor left", cli::kFailed, kNone.of_disk, RLIM_INFINITY, 2});
  });
}

using Commands = CommandTest;

TEST_F(Commands, KeepNothingAndCloseNoDatabaseBesideSQLite) {
  const std::string commands[] = {
      "ls catalog 5/client/policy",
      "show catalog 5/client/policy/1",
      "find catalog *",
      "stats catalog",
      "verify catalog",
      "check catalog",
      "dcids catalog 5/client/policy/1",
      "rm catalog 5/client/policy/gone",
      "retention show catalog 5/client/policy/1",
      "journal apply catalog/5/client/policy/po.db " + temp_.path("journal"),
      "ingest " + source_ + " --root catalog" + kInto + "--threads 1"};
  setenv("TMPDIR", temp_.path().c_str(), 1);
  write_source(source_, 0, 3);
  write_file(temp_.path("journal"), "UPDATE registry SET value = '1';\n");
  fs::create_directory(temp_.path("missing"));
  ingest(cli::kDone);
  SQLitePODB po(root_, full(image_));
  SQLiteULDB ul(full(image_), 0);
  unsigned long n = 0;
  EXPECT_EQ(po.count(&n) + ul.count(&n), 2 * CR_STATUS_OK) << "they are open meanwhile";
  for (const char* name : {"/po.db", "/ul.db"}) {
    write_file(temp_.path("garbage/catalog/" + image_ + name), "garbage");
  }
  for (const char* place : {".", "garbage", "missing"}) {
    fs::current_path(temp_.path(place));
    for (const std::string& line : commands) {
      command(line), command(line);  // fills what is kept for good
      const Held before = held();
      EXPECT_NE(command(line).status, cli::kUsage) << line;
      EXPECT_EQ(held(), before) << line;
    }
  }
  const Held before = held();
  std::ifstream(po.get_dbfile_path()).get();
  EXPECT_EQ(held()[3], before[3] + 1) << "the negative control";
}

}  // namespace
