#include "podb/retention.h"

#include <dlfcn.h>
#include <sys/time.h>
#include <unistd.h>

#include <fstream>
#include <optional>
#include <random>

#include "tests/podb/fixture.h"
#include "tests/support/private_mounts.h"

namespace {
// While it is set the marker of the fake clock exists, and the system clock says this.
std::optional<time_t> fake_clock;
bool host_fails = false;
}  // namespace

extern "C" {
int POSetAtime(_po_t* record, std::uint64_t time) {
  if (host_fails) return -1;
  return reinterpret_cast<decltype(&POSetAtime)>(dlsym(RTLD_NEXT, __func__))(record, time);
}
int zel_access(const char* path, int mode) {
  const bool is_marker = std::string(path) == "/etc/tarn/fake-compliance-clock";
  return fake_clock && is_marker ? 0 : access(path, mode);
}
int gettimeofday(timeval* now, void*) noexcept {
  return *now = {fake_clock.value_or(0), 999999}, 0;
}
}  // extern "C"

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// An entry "img" in a store, with a clock in hand.
class Retention : public StoreTest {
 protected:
  Retention() { fake_clock = 5000, host_fails = false; }

  void store(std::uint64_t atime) {
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7, "/c/p");
    fields.atime = atime;
    fields.ctime = 1000;
    fields.content_fp = std::string(1100, 'f');
    EXPECT_EQ(db.put(std::make_unique<FilePO>(text_of(fields)).get()), CR_STATUS_OK);
  }
  cr_status_t set(unsigned long flags, long period) {
    return db.set_retention("img", flags, period);
  }
  tolvfs_worm_info_t info(cr_status_t status = CR_STATUS_OK) {
    tolvfs_worm_info_t found{};
    std::memset(&found, 0x55, sizeof found);
    EXPECT_EQ(db.get_retention("img", found), status);
    return found;
  }
};

TEST_F(Retention, AddsFlagsRaisesTheLockOnlyAndReportsTimesRelativeToTheClock) {
  constexpr std::uint32_t kLocked = SF_RETENTION_LOCK, kBoth = SF_RETENTION_LOCK | SF_IMMUTABLE;
  const struct {
    time_t clock;
    unsigned long flags;
    long period;
    cr_status_t status;
    std::uint32_t special_flags;
    std::uint64_t atime;
    std::int64_t ctime_offset, remaining;
    std::uint32_t reported;
  } cases[] = {
      {5000, 0, 500, 0, 0, 1077, 0, 0, 0},
      {5000, RETENTION_LOCK, 100, 0, kLocked, 5100, -4000, 100, WORM_LOCKED},
      {5000, RETENTION_LOCK | RETENTION_IMMUTABLE, 99, CR_STATUS_LOCK_LOWERED, kLocked, 5100, -4000,
       100, WORM_LOCKED},
      {5001, RETENTION_LOCK, 99, 0, kLocked, 5100, -4001, 99, WORM_LOCKED},
      {5001, RETENTION_IMMUTABLE, 0, 0, kBoth, 5100, -4001, 99, WORM_LOCKED | WORM_IMMUTABLE},
      {1, RETENTION_LOCK | RETENTION_CLOUD, 10, 0, kBoth | SF_CLOUDLSU, 1010, 0, 0,
       WORM_IMMUTABLE}};
  store(1077);
  refhost::set_log_level(refhost::LogLevel::Trace);
  for (const auto& c : cases) {
    fake_clock = c.clock;
    EXPECT_EQ(set(c.flags, c.period), c.status);
    FilePO entry(0);
    EXPECT_EQ(db.get("img", &entry), CR_STATUS_OK);
    EXPECT_EQ(POGetAtime(entry.record()), c.atime);
    EXPECT_EQ(POGetSpecialFlags(entry.record()), c.special_flags);
    const tolvfs_worm_info_t found = info();
    EXPECT_EQ(found.ctime_offset, c.ctime_offset);
    EXPECT_EQ(found.ctime_offset_again, c.ctime_offset);
    EXPECT_EQ(found.lock_remaining, c.remaining);
    EXPECT_EQ(found.worm_flags, c.reported);
  }
  log.expect(
      refhost::LogLevel::Trace, CR_STATUS_NONE,
      "set_retention: cloudlsu=0, retention lock = 100, PO ctime = 1077 PO atime is 1000 for "
      "image img");
  log.expect_error(
      CR_STATUS_LOCK_LOWERED,
      "set_retention: the retention lock 5099 is less than previous value 5100 for img");
  EXPECT_EQ(std::string(info().cdo_ref, 1024), std::string(1024, 'f')) << "cut";
}

TEST_F(Retention, InventsNoEntryAndChangesNoneByHalves) {
  SQLitePODB top(root.path(), root.path());
  EXPECT_EQ(top.put(std::make_unique<FilePO>(file_text("image", make_poid(1))).get()), 0);
  EXPECT_EQ(top.set_retention("image", RETENTION_IMMUTABLE, 0), CR_STATUS_NO_LOCATION);
  EXPECT_EQ(raw_sql(root.path("po.db"), "SELECT basename FROM po"), RawRows{{"image"}});
  log.expect_error(CR_STATUS_NO_LOCATION, "set_retention: put po failed for image");
  store(9999);
  tolvfs_worm_info_t found{1, 1, 1, 1, "x"};
  EXPECT_EQ(db.set_retention("gone", RETENTION_LOCK, 1), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.get_retention("gone", found), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(found.worm_flags | static_cast<unsigned char>(found.cdo_ref[0]), 0U);
  log.expect_error(CR_STATUS_NOT_FOUND, "set_retention: get po failed for gone");
  log.expect_error(CR_STATUS_NOT_FOUND, "get_retention: get po failed for gone");
  host_fails = true;
  EXPECT_EQ(set(RETENTION_LOCK | RETENTION_CLOUD, 9999), CR_STATUS_FAILED);
  log.expect_error(CR_STATUS_FAILED, "set_retention: set po failed for img");
  host_fails = false;
  EXPECT_EQ(set(RETENTION_IMMUTABLE, 0), CR_STATUS_OK);
  EXPECT_EQ(info().worm_flags, WORM_IMMUTABLE) << "its time is in the future, but it is no lock";
  start_afresh(false);
  store(77);
  EXPECT_EQ(db.set_retention("IMG", RETENTION_IMMUTABLE, 0), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT basename FROM po"), RawRows{{"img"}});
}

// A store of what a lock needs of one entry, in memory.
struct OneEntry : SQLitePODB {
  using SQLitePODB::SQLitePODB;
  cr_status_t get(const std::string&, PO* po) override {
    EXPECT_EQ(po->get_dsid(), 0U) << "not that of the database";
    POSetBasename(po->record(), "img");
    return POSetSpecialFlags(po->record(), special_flags) | POSetAtime(po->record(), atime);
  }
  cr_status_t put(PO* po) override {
    special_flags = POGetSpecialFlags(po->record()), atime = POGetAtime(po->record());
    return CR_STATUS_OK;
  }
  std::uint32_t special_flags = 0;
  std::uint64_t atime = 0;
};

// A second of 1 s to 50 years either way, or one of the limits.
std::int64_t random_seconds(std::mt19937_64& random) {
  constexpr std::int64_t k50Years = 50LL * 365 * 86400;
  constexpr std::int64_t kLimits[] = {0, 1, -1, kMax, -kMax - 1, kMax - 1};
  if (random() % 8 == 0) return kLimits[random() % std::size(kLimits)];
  return std::uniform_int_distribution<std::int64_t>(-k50Years, k50Years)(random);
}

// The model is exact: locks are numbers, a lock is in force as long as it is after the clock.
TEST_F(Retention, EndsNoLockEarlyAndShortensNoneInAnyScheduleOfTheClock) {
  refhost::log_to_sink([](const refhost::LogLine&) {});
  // Holds every 64-bit number, and the order of their sums.
  const auto wide = [](auto number) { return static_cast<long double>(number); };
  std::mt19937_64 random(4711);
  for (int schedule = 0; schedule < 100000 && !HasFailure(); ++schedule) {
    OneEntry one(root.path(), dir);
    std::uint64_t lock = one.atime = random() % 4 == 0 ? random() : 0;
    bool has_lock = false;
    for (std::uint64_t step = random() % 4 + 1; step > 0; --step) {
      const auto clock = random() % 2 == 0 ? random_seconds(random)
                                           : static_cast<std::int64_t>(lock - random() % 2);
      const std::int64_t period = random_seconds(random);
      const long double wanted = wide(clock) + wide(period);
      const bool raised = wanted <= wide(kMax) && wanted >= wide(lock);
      if (raised) lock = static_cast<std::uint64_t>(clock + period);
      has_lock = has_lock || raised;
      fake_clock = clock;
      SCOPED_TRACE(std::to_string(clock) + " and " + std::to_string(period));
      EXPECT_EQ(one.set_retention("img", RETENTION_LOCK, period) == CR_STATUS_OK, raised);
      EXPECT_EQ(one.atime, lock);
      tolvfs_worm_info_t found{};
      EXPECT_EQ(one.get_retention("img", found), CR_STATUS_OK);
      EXPECT_EQ(found.worm_flags == WORM_LOCKED, has_lock && wide(lock) > wide(clock));
    }
  }
}

// Each case is its own process: the mount point is found out once.
TEST_F(Retention, NeedsTheClockOfTheMountPointForLocksAndTheirReports) {
  const char* const standard = "/opt/halyard/arbor-manage/worm";
  const struct {
    std::string mount_file;  // what names the mount point
    const char* made;        // a directory that exists
    cr_status_t status;
    int reason;
    const char* line;
  } cases[] = {{"/opt/m\nrest", "/opt/m", CR_STATUS_OK, 0, ""},
               {"", standard, CR_STATUS_OK, 0, ""},
               {"/opt/gone\n", standard, CR_STATUS_OK, 0, ""},
               {"/opt/" + std::string(5000, 'a'), standard, CR_STATUS_OK, 0, ""},
               {"/opt/m\n", "/opt/other", CR_STATUS_NOT_PROVIDED, ENOENT,
                "get_compclk: compliance clock mount point is not existing"},
               {"/opt/s", "/opt/s", CR_STATUS_NOT_PROVIDED, EOPNOTSUPP,
                "get_compclk: compliance clock is not enabled"},
               {"/opt/f", "/opt/f", CR_STATUS_FAILED, EIO,
                "get_compclk: fail to get compliance clock on mount point (/opt/f), errno=5"},
               {"/opt/q", "/opt/q", CR_STATUS_FAILED, 0,
                "get_compclk: fail to get compliance clock on mount point (/opt/q), errno=0"}};
  store(9999);
  ASSERT_EQ(set(RETENTION_LOCK, 9999), CR_STATUS_OK);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    in_private_mounts({"/etc", "/opt"}, [this, &c] {
      fake_clock.reset();
      std::filesystem::create_directory("/etc/tarn");
      std::filesystem::create_directories(c.made);
      std::ofstream("/etc/tarn/worm") << c.mount_file;
      timeval now{1, 1};
      EXPECT_EQ(get_compclk(&now), c.status);
      EXPECT_EQ(now.tv_sec, c.status == CR_STATUS_OK ? 4711 : 1);
      EXPECT_EQ(set(RETENTION_LOCK, 99999), c.status);
      EXPECT_EQ(info(c.status).worm_flags, c.status == CR_STATUS_OK ? WORM_LOCKED : 0);
      if (c.status != CR_STATUS_OK) {
        for (int call = 0; call < 3; ++call) log.expect_error(c.status, c.line);
        log.expect_error(c.status,
                         "set_retention: get_compclk failed : errno = " + std::to_string(c.reason));
        log.expect_error(c.status, "get_retention: get compliance clock failed for img");
      }
      EXPECT_TRUE(log.messages(refhost::LogLevel::Error).empty());
      // The mount point is kept when it fails; the marker counts at once.
      std::filesystem::remove(c.made);
      std::ofstream("/etc/tarn/worm") << "/opt";
      EXPECT_EQ(get_compclk(&now), CR_STATUS_NOT_PROVIDED);
      fake_clock = 1;
      EXPECT_EQ(get_compclk(&now) + now.tv_usec, CR_STATUS_OK);
    });
  }
}

}  // namespace
