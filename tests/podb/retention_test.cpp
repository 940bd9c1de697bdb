#include "podb/retention.h"

#include <dlfcn.h>
#include <sys/stat.h>

#include <fstream>
#include <random>

#include "tests/podb/fixture.h"
#include "tests/support/private_mounts.h"

namespace {
// While this is set the marker of the fake clock exists, and the system clock says this.
struct FakeClock {
  bool set = false;
  time_t seconds = 0;
  int readings = 0;
} fake_clock;

constexpr const char* kMarker = "/etc/tarn/fake-compliance-clock";

template <typename Function>
Function* next(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
}  // namespace

extern "C" int zel_access(const char* path, int mode) {
  if (fake_clock.set && std::string(path) == kMarker) return 0;
  return next<decltype(zel_access)>(__func__)(path, mode);
}

extern "C" int gettimeofday(timeval* now, void*) noexcept {
  ++fake_clock.readings;
  *now = {fake_clock.seconds, 999999};
  return 0;
}

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();

// An entry "img" in a store, with a clock in hand.
class Retention : public StoreTest {
 protected:
  Retention() { fake_clock = {true, 5000, 0}; }
  void TearDown() override { fake_clock = {}; }

  void store(std::uint64_t atime, const std::string& content_fp = "") {
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7, "/c/p");
    fields.atime = atime;
    fields.ctime = 1000;
    fields.content_fp = content_fp;
    FilePO entry(text_of(fields));
    ASSERT_EQ(db.put(&entry), CR_STATUS_OK);
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
  refhost::RecordFields stored() {
    FilePO entry(0);
    EXPECT_EQ(db.get("img", &entry), CR_STATUS_OK);
    return refhost::get_fields(entry.record());
  }
  void expect_lowered(const std::string& lock, const std::string& current) {
    log.expect_error(CR_STATUS_LOCK_LOWERED, "set_retention: the retention lock " + lock +
                                                 " is less than previous value " + current +
                                                 " for img");
  }
};

TEST_F(Retention, AddsFlagsAndRaisesTheLockOnly) {
  store(77);
  const RawRows before = sql("SELECT * FROM po");
  EXPECT_EQ(set(0, 500), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT * FROM po"), before);
  EXPECT_EQ(fake_clock.readings, 0);
  EXPECT_EQ(set(RETENTION_LOCK, 100), CR_STATUS_OK);
  EXPECT_EQ(stored().atime, 5100u);
  EXPECT_EQ(stored().special_flags, SF_RETENTION_LOCK);
  EXPECT_EQ(set(RETENTION_LOCK | RETENTION_IMMUTABLE, 99), CR_STATUS_LOCK_LOWERED);
  expect_lowered("5099", "5100");
  EXPECT_EQ(stored().special_flags, SF_RETENTION_LOCK);
  fake_clock.seconds = 5001;
  EXPECT_EQ(set(RETENTION_LOCK, 99), CR_STATUS_OK);
  EXPECT_EQ(set(RETENTION_IMMUTABLE, 0), CR_STATUS_OK);
  EXPECT_EQ(stored().atime, 5100u);
  EXPECT_EQ(stored().special_flags, SF_RETENTION_LOCK | SF_IMMUTABLE);
  fake_clock.readings = 0;
  EXPECT_EQ(set(RETENTION_LOCK | RETENTION_CLOUD, 10), CR_STATUS_OK);
  EXPECT_EQ(stored().atime, 1010u);
  EXPECT_EQ(stored().special_flags, SF_RETENTION_LOCK | SF_IMMUTABLE | SF_CLOUDLSU);
  EXPECT_EQ(fake_clock.readings, 0);
}

TEST_F(Retention, RefusesLocksThatAreNoTimes) {
  const struct {
    std::uint64_t current;
    std::int64_t clock;
    long period;
    const char* lock;  // refused, unless null
  } cases[] = {
      {0, 1, kMax, "9223372036854775808"},
      {0, kMax, kMax, "18446744073709551614"},
      {0, 10, -11, "18446744073709551615"},
      {0, -kMax, -kMax, "2"},
      {std::uint64_t{1} << 63, 5, kMax - 5, "9223372036854775807"},
      {0, 0, kMax, nullptr},
      {5, 10, -5, nullptr},
      {0, -5, 5, nullptr},
  };
  for (const auto& c : cases) {
    store(c.current);
    fake_clock.seconds = c.clock;
    const RawRows before = sql("SELECT * FROM po");
    EXPECT_EQ(set(RETENTION_LOCK, c.period), c.lock == nullptr ? 0 : CR_STATUS_LOCK_LOWERED);
    if (c.lock == nullptr) continue;
    expect_lowered(c.lock, std::to_string(c.current));
    EXPECT_EQ(sql("SELECT * FROM po"), before);
  }
}

TEST_F(Retention, ReportsTimesRelativeToTheClock) {
  const std::string fingerprint(1100, 'f');
  const auto zero = [](const tolvfs_worm_info_t& found) {
    const tolvfs_worm_info_t empty{};
    return std::memcmp(&found, &empty, sizeof empty) == 0;
  };
  store(0, fingerprint);
  EXPECT_TRUE(zero(info()));
  ASSERT_EQ(set(RETENTION_LOCK | RETENTION_IMMUTABLE, 60), CR_STATUS_OK);
  const tolvfs_worm_info_t locked = info();
  EXPECT_EQ(locked.worm_flags, WORM_IMMUTABLE | WORM_LOCKED);
  EXPECT_EQ(locked.ctime_offset, -4000);
  EXPECT_EQ(locked.ctime_offset_again, -4000);
  EXPECT_EQ(locked.lock_remaining, 60);
  EXPECT_EQ(std::string(locked.cdo_ref, sizeof locked.cdo_ref), fingerprint.substr(0, 1024));
  fake_clock.seconds = 5060;
  EXPECT_EQ(info().worm_flags, WORM_IMMUTABLE);
  EXPECT_EQ(info().lock_remaining, 0);
  fake_clock.readings = 0;
  ASSERT_EQ(set(RETENTION_LOCK | RETENTION_CLOUD, 9999), CR_STATUS_OK);
  EXPECT_EQ(info().worm_flags, WORM_IMMUTABLE);
  EXPECT_EQ(info().lock_remaining, 0);
  EXPECT_EQ(info().cdo_ref[0], 'f');
  EXPECT_EQ(fake_clock.readings, 0);
}

TEST_F(Retention, WritesNothingWhenItFails) {
  EXPECT_EQ(set(RETENTION_LOCK, 1), CR_STATUS_NOT_FOUND);
  log.expect_error(CR_STATUS_NOT_FOUND, "set_retention: get po failed for img");
  EXPECT_EQ(info(CR_STATUS_NOT_FOUND).worm_flags, 0u);
  log.expect_error(CR_STATUS_NOT_FOUND, "get_retention: get po failed for img");
  store(0);
  db.failing = "INSERT";
  EXPECT_EQ(set(RETENTION_LOCK, 1), CR_STATUS_BUSY);
  log.expect_error(CR_STATUS_BUSY, "set_retention: put po failed for img");
}

TEST_F(Retention, InventsNoEntryInADatabaseOfTheRoot) {
  SQLitePODB top(root.path(), root.path());
  FilePO entry(file_text("image", make_poid(1)));
  ASSERT_EQ(top.put(&entry), CR_STATUS_OK);
  EXPECT_EQ(top.set_retention("image", RETENTION_IMMUTABLE, 0), CR_STATUS_NO_LOCATION);
  log.expect_error(CR_STATUS_NO_LOCATION, "set_retention: put po failed for image");
  EXPECT_EQ(raw_sql(root.path("po.db"), "SELECT basename FROM po"), RawRows{{"image"}});
}

TEST_F(Retention, TracesValuesBesideTheirLabels) {
  store(77);
  LogCapture trace(refhost::LogLevel::Trace);
  EXPECT_EQ(set(RETENTION_LOCK, 100), CR_STATUS_OK);
  trace.expect(refhost::LogLevel::Trace, CR_STATUS_NONE,
               "set_retention: cloudlsu=0, retention lock = 100, PO ctime = 77 PO atime is 1000 "
               "for image img");
}

// A store of one entry in memory, which is all that a lock needs.
class OneEntry : public SQLitePODB {
 public:
  using SQLitePODB::SQLitePODB;
  cr_status_t get(const std::string&, PO* po) override {
    return static_cast<cr_status_t>(po->set(get_root(), text, get_dir() + "/img"));
  }
  cr_status_t put(PO* po) override { return static_cast<cr_status_t>(po->to_string(text)); }

  std::string text;
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
  constexpr int kSchedules = 100000;
  refhost::log_to_sink([](const refhost::LogLine&) {});
  OneEntry one(root.path(), dir);
  const std::string text = file_text("img", make_poid(1), 7, "/c/p");
  std::mt19937_64 random(4711);
  for (int schedule = 0; schedule < kSchedules && !HasFailure(); ++schedule) {
    one.text = text;
    long double lock = 0;  // holds every 64-bit number, and the order of their sums
    bool has_lock = false;
    for (std::uint64_t step = random() % 4 + 1; step > 0; --step) {
      fake_clock.seconds = random() % 2 == 0
                               ? random_seconds(random)
                               : static_cast<std::int64_t>(lock) - static_cast<int>(random() % 2);
      const long period = random_seconds(random);
      const long double wanted =
          static_cast<long double>(fake_clock.seconds) + static_cast<long double>(period);
      const bool raised = wanted <= static_cast<long double>(kMax) && wanted >= lock;
      SCOPED_TRACE(std::to_string(schedule) + ": clock " + std::to_string(fake_clock.seconds) +
                   " period " + std::to_string(period));
      EXPECT_EQ(one.set_retention("img", RETENTION_LOCK, period),
                raised ? CR_STATUS_OK : CR_STATUS_LOCK_LOWERED);
      if (raised) lock = wanted;
      has_lock = has_lock || raised;
      tolvfs_worm_info_t found{};
      EXPECT_EQ(one.get_retention("img", found), CR_STATUS_OK);
      EXPECT_EQ(found.worm_flags == WORM_LOCKED,
                has_lock && lock > static_cast<long double>(fake_clock.seconds));
    }
  }
}

constexpr const char* kMissing = "get_compclk: compliance clock mount point is not existing";

// Each case is its own process: the mount point is found out once. A stale reason, and what a
// caller left in the result, decide nothing.
TEST(ComplianceClock, ComesFromTheMountPoint) {
  constexpr const char* kDefault = "/opt/halyard/arbor-manage/worm";
  const std::string long_line = "/opt/" + std::string(5000, 'a');
  const struct {
    const char* mount_file;  // what names the mount point, unless null
    const char* made;        // a directory that exists
    cr_status_t status;
    const char* error;
  } cases[] = {
      {"/opt/m\nrest", "/opt/m", CR_STATUS_OK, ""},
      {nullptr, kDefault, CR_STATUS_OK, ""},
      {"", kDefault, CR_STATUS_OK, ""},
      {"\n/opt/halyard\n", kDefault, CR_STATUS_OK, ""},
      {long_line.c_str(), kDefault, CR_STATUS_OK, ""},
      {"/opt/m\n", kDefault, CR_STATUS_OK, ""},
      {"/opt/m\n", "/opt/other", CR_STATUS_NOT_PROVIDED, kMissing},
      {"/opt/s", "/opt/s", CR_STATUS_NOT_PROVIDED, "get_compclk: compliance clock is not enabled"},
      {"/opt/f", "/opt/f", CR_STATUS_FAILED,
       "get_compclk: fail to get compliance clock on mount point (/opt/f), errno=5"},
      {"/opt/q", "/opt/q", CR_STATUS_FAILED,
       "get_compclk: fail to get compliance clock on mount point (/opt/q), errno=0"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    in_private_mounts({"/etc", "/opt"}, [&c] {
      LogCapture log;
      std::filesystem::create_directory("/etc/tarn");
      if (c.mount_file != nullptr) std::ofstream("/etc/tarn/worm") << c.mount_file;
      std::filesystem::create_directories(c.made);
      for (int round = 0; round < 2; ++round) {
        timeval now{1, 1};
        errno = EOPNOTSUPP;
        EXPECT_EQ(get_compclk(&now), c.status);
        EXPECT_EQ(now.tv_sec, c.status == CR_STATUS_OK ? 4711 : 1);
        EXPECT_EQ(now.tv_usec, c.status == CR_STATUS_OK ? 0 : 1);
        if (c.status != CR_STATUS_OK) log.expect_error(c.status, c.error);
        std::ofstream("/etc/tarn/worm") << "/etc\n";  // not read again
      }
      std::ofstream(kMarker) << "";
      fake_clock.seconds = 5000;
      timeval now{};
      EXPECT_EQ(get_compclk(&now), CR_STATUS_OK);
      EXPECT_EQ(now.tv_sec, 5000);
      EXPECT_EQ(now.tv_usec, 0);
    });
  }
}

TEST_F(Retention, NeedsTheClockForLocksAndTheirReports) {
  store(9999);
  ASSERT_EQ(set(RETENTION_LOCK, 9999), CR_STATUS_OK);
  EXPECT_EQ(get_compclk(nullptr), CR_STATUS_BAD_ARG);
  in_private_mounts({"/etc", "/opt"}, [this] {
    fake_clock.set = false;
    errno = 0;
    EXPECT_EQ(set(RETENTION_LOCK, 1), CR_STATUS_NOT_PROVIDED);
    EXPECT_EQ(info(CR_STATUS_NOT_PROVIDED).worm_flags, 0u);
    log.expect_error(CR_STATUS_NOT_PROVIDED, kMissing);
    log.expect_error(CR_STATUS_NOT_PROVIDED, kMissing);
    log.expect_error(CR_STATUS_NOT_PROVIDED, "set_retention: get_compclk failed : errno = 2");
    log.expect_error(CR_STATUS_NOT_PROVIDED, "get_retention: get compliance clock failed for img");
    EXPECT_EQ(set(RETENTION_IMMUTABLE, 1), CR_STATUS_OK);
  });
}

}  // namespace
