// A full disk, no inode left, files that may not grow, no descriptor left: what is answered is what
// was done, nothing is lost, and once there is room everything goes on by itself.
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/statvfs.h>

#include <csignal>
#include <cstring>
#include <fstream>
#include <map>
#include <set>

#include "tests/cli/read_fixture.h"
#include "tests/faults/world.h"
#include "tests/support/private_mounts.h"

namespace fs = std::filesystem;

namespace {

const std::string kDisk = "/mnt";  // the test's own, once mounted
const std::string kBallast = kDisk + "/ballast";
const std::string kCatalog = kDisk + "/catalog";

void mount_disk(const char* options) {
  ASSERT_EQ(mount("tmpfs", kDisk.c_str(), "tmpfs", 0, options), 0);
}

void set_limit(__rlimit_resource resource, rlim_t value) {
  rlimit limit{};
  getrlimit(resource, &limit);
  limit.rlim_cur = std::min(value, limit.rlim_max);
  setrlimit(resource, &limit);
}

struct Limit {
  const char* name;
  std::vector<std::uint64_t> rooms;  // how much is left
  void (*impose)(std::uint64_t room);
  std::set<cr_status_t> statuses;  // specified, besides 0
  std::uint64_t room_of_command;
};

void fill_disk(std::uint64_t room) {
  struct statvfs disk {};
  statvfs(kDisk.c_str(), &disk);
  const std::uint64_t free = disk.f_bfree * disk.f_bsize;
  std::ofstream(kBallast) << std::string(free - std::min(free, room), 'x');
}

void use_inodes(std::uint64_t room) {
  struct statvfs disk {};
  statvfs(kDisk.c_str(), &disk);
  fs::create_directory(kBallast);
  for (auto i = room + 1; i < disk.f_ffree; ++i) std::ofstream(kBallast + "/" + std::to_string(i));
}

void forbid_growth(std::uint64_t room) {
  std::signal(SIGXFSZ, SIG_IGN);
  set_limit(RLIMIT_FSIZE, room);
}

void use_descriptors(std::uint64_t room) {
  const int next = dup(0);
  close(next);
  set_limit(RLIMIT_NOFILE, static_cast<rlim_t>(next) + room);
}

void lift_all() {
  set_limit(RLIMIT_FSIZE, RLIM_INFINITY);
  set_limit(RLIMIT_NOFILE, 1024);
  fs::remove_all(kBallast);
}

// SQLite has no code of its own for files that cannot be opened, and the library no status for a
// full disk. Reads answer that a database is not there when it cannot be opened.
const Limit kLimits[] = {
    {"full disk", {0, 4096, 16384, 65536}, fill_disk, {CR_STATUS_FAILED}, 100000},
    {"no inode left", {0, 1, 2}, use_inodes, {CR_STATUS_FAILED}, 0},
    {"files may not grow",
     {0, 512, 4096, 16384},
     forbid_growth,
     {CR_STATUS_FAILED, CR_STATUS_IO_ERROR},
     40000},
    {"no descriptor left",
     {0, 1, 2, 3},
     use_descriptors,
     {CR_STATUS_FAILED, CR_STATUS_NOT_FOUND, CR_STATUS_BAD_ARG},
     2}};

Rows sound_rows_of(const World& world) {
  intact::Faults faults;
  const Rows rows = rows_of(world.dir, faults);
  EXPECT_THAT(faults, testing::IsEmpty());
  return rows;
}

// One operation, and what it makes of the rows when nothing hinders it.
class Hindered {
 public:
  explicit Hindered(const Operation& operation) : operation_(operation) {
    restore();
    World world(kCatalog);
    before_ = sound_rows_of(world);
    EXPECT_EQ(run_caught(operation_, world), CR_STATUS_OK) << operation.name;
    after_ = sound_rows_of(world);
  }

  cr_status_t under(const Limit& limit, std::uint64_t room) const {
    SCOPED_TRACE(std::string(operation_.name) + ", " + limit.name + ", " + std::to_string(room));
    restore();
    World world(kCatalog);
    limit.impose(room);
    const cr_status_t status = run_caught(operation_, world);
    lift_all();
    EXPECT_TRUE(status == CR_STATUS_OK || status == operation_.also ||
                limit.statuses.count(status) > 0)
        << status;
    world.roll_back();
    const Rows found = sound_rows_of(world);
    EXPECT_TRUE(is_right(counts_as_empty(limit) ? CR_STATUS_BAD_ARG : status, found)) << status;
    if (found == after_ || left_empty_lists()) return status;
    EXPECT_EQ(run_caught(operation_, world), CR_STATUS_OK) << "is not done again";
    EXPECT_TRUE(sound_rows_of(world) == after_) << "is not the same when done again";
    return status;
  }

  bool is_right(cr_status_t status, const Rows& found) const {
    return status == CR_STATUS_OK ? found == after_ : may_leave(operation_, found, before_, after_);
  }

 private:
  // What a journal that cannot be opened does: intended, its callers look for it first.
  bool counts_as_empty(const Limit& limit) const {
    return limit.impose == use_descriptors && std::strstr(operation_.name, "journal") != nullptr;
  }
  // A creation of lists that failed leaves a file without content, which is taken for no database
  // until it is removed, as ingest does.
  bool left_empty_lists() const {
    const std::string file = kCatalog + "/5/c/p/ul.db";
    return std::string(operation_.name) == "create lists" && fs::exists(file) && fs::is_empty(file);
  }
  void restore() const {
    fs::remove_all(kCatalog);
    World world(kCatalog);
    operation_.prepare(world, operation_.rows);
  }

  const Operation& operation_;
  Rows before_;
  Rows after_;
};

TEST(Limits, hinder_operations_without_harm) {
  in_private_mounts({kDisk}, [] {
    refhost::log_to_sink([](const refhost::LogLine&) {});
    mount_disk("size=1m,nr_inodes=40");
    std::map<std::string, std::map<cr_status_t, int>> figures;
    for (const Operation& operation : operations()) {
      const Hindered hindered(operation);
      EXPECT_FALSE(hindered.is_right(CR_STATUS_FAILED, {"a row that was made up"}));
      for (const Limit& limit : kLimits) {
        for (const auto room : limit.rooms) ++figures[limit.name][hindered.under(limit, room)];
      }
    }
    for (const auto& [limit, statuses] : figures) {
      std::printf("[ figures ] %s:", limit.c_str());
      for (const auto& [status, times] : statuses) std::printf(" status %d x %d", status, times);
      std::printf("\n");
      EXPECT_GT(statuses.size(), 1U) << limit << " hindered nothing";
    }
  });
}

constexpr int kFiles = 1500;

void write_source(const std::string& source, int from, int to) {
  fs::create_directories(source + "/below");
  for (int i = from; i < to; ++i) {
    std::ofstream(source + (i % 2 == 0 ? "/" : "/below/") + "file-" + std::to_string(i)) << i;
  }
}

Outcome ingest(const std::string& source) {
  return command("ingest " + source + " --root " + kCatalog +
                 " --dsid 5 --client client --policy policy --threads 2");
}

// Lists and verifies; returns the number of names.
long look() {
  expect(cli::kDone, "verify " + kCatalog);
  long names = 0;
  for (const char* directory : {" 5/client/policy", " 5/client/policy/below"}) {
    const Outcome list = expect(cli::kDone, "ls " + kCatalog + directory);
    names += std::count(list.out.begin(), list.out.end(), '\n');
  }
  return names;
}

// A first part is in the catalog; the second does not fit.
void stop_ingest(const Limit& limit) {
  SCOPED_TRACE(limit.name);
  const TempDir temp;
  const std::string source = temp.path("source");
  mount_disk("size=2m,nr_inodes=40");
  write_source(source, 0, 10);
  EXPECT_EQ(ingest(source).status, cli::kDone);
  write_source(source, 10, kFiles);
  limit.impose(limit.room_of_command);
  const Outcome hindered = ingest(source);
  if (limit.impose == use_descriptors) lift_all();  // reading needs some
  const long names = look();
  lift_all();
  EXPECT_GE(names, 11) << "what was there is lost";
  EXPECT_NE(hindered.status, cli::kDone) << "it hindered nothing";
  std::printf("[ figures ] ingest, %s: status %d, %ld names; %s\n", limit.name, hindered.status,
              names, hindered.err.substr(0, hindered.err.find('\n')).c_str());
  const Outcome next = ingest(source);
  EXPECT_EQ(next.status, cli::kDone) << next.err;
  EXPECT_EQ(look(), kFiles + 1);
  umount(kDisk.c_str());
}

TEST(Limits, stop_ingest_and_the_next_run_goes_on) {
  in_private_mounts({kDisk}, [] {
    for (const Limit& limit : kLimits) stop_ingest(limit);
  });
}

}  // namespace
