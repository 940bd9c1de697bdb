#include "podb/retention.h"

#include <sys/time.h>
#include <unistd.h>

#include <optional>

#include "tests/podb/fixture.h"
#include "tests/support/private_mounts.h"

// While it is set the marker of the fake clock exists, and the system clock says this.
static std::optional<time_t> fake_clock;

extern "C" {
int zel_access(const char* path, int mode) {
  const bool is_marker = std::string(path) == "/etc/tarn/fake-compliance-clock";
  return fake_clock && is_marker ? 0 : access(path, mode);
}
int gettimeofday(timeval* now, void*) noexcept {
  return *now = {fake_clock.value_or(0), 999999}, 0;
}
}  // extern "C"

namespace {

// An entry "img" in a store, with a clock in hand.
class Retention : public StoreTest {
 protected:
  Retention() { fake_clock = 5000; }

  void store(std::uint64_t atime) {
    refhost::RecordFields fields = file_fields("img", make_poid(1), 7, "/c/p");
    fields.atime = atime;
    fields.ctime = 1000;
    fields.content_fp = std::string(1100, 'f');
    EXPECT_EQ(db.put(std::make_unique<FilePO>(text_of(fields)).get()), CR_STATUS_OK);
  }
  tolvfs_worm_info_t info(cr_status_t status = CR_STATUS_OK) {
    tolvfs_worm_info_t found{1, 1, 1, 1, "x"};
    EXPECT_EQ(db.get_retention("img", found), status);
    return found;
  }
};

TEST_F(Retention, AddsFlagsRaisesTheLockOnlyAndReportsTimesRelativeToTheClock) {
  constexpr std::uint32_t kLocked = SF_RETENTION_LOCK, kBoth = SF_RETENTION_LOCK | SF_IMMUTABLE;
  constexpr std::uint32_t kCloud = kBoth | SF_CLOUDLSU;
  // Clock, period and flags; flags and lock of the entry, offset of its times, what is reported.
  const std::tuple<long, long, unsigned long, std::uint32_t, unsigned long, std::int64_t,
                   std::int64_t, std::uint32_t, cr_status_t>
      cases[] = {
          {5000, 500, 0, 0, 1077, 0, 0, 0, 0},
          {5000, 100, RETENTION_LOCK, kLocked, 5100, -4000, 100, WORM_LOCKED, 0},
          {5000, 99, RETENTION_LOCK | RETENTION_IMMUTABLE, kLocked, 5100, -4000, 100, WORM_LOCKED,
           CR_STATUS_LOCK_LOWERED},
          {5001, 99, RETENTION_LOCK, kLocked, 5100, -4001, 99, WORM_LOCKED, 0},
          {5001, 0, RETENTION_IMMUTABLE, kBoth, 5100, -4001, 99, WORM_LOCKED | WORM_IMMUTABLE, 0},
          {1, 10, RETENTION_LOCK | RETENTION_CLOUD, kCloud, 1010, 0, 0, WORM_IMMUTABLE, 0}};
  store(1077);
  refhost::set_log_level(refhost::LogLevel::Trace);
  for (const auto& [clock, period, flags, special, atime, ctime, remaining, reported, status] :
       cases) {
    fake_clock = clock;
    EXPECT_EQ(db.set_retention("img", flags, period), status);
    FilePO entry(0);
    EXPECT_EQ(db.get("img", &entry), CR_STATUS_OK);
    EXPECT_EQ(POGetAtime(entry.record()), atime);
    EXPECT_EQ(POGetSpecialFlags(entry.record()), special);
    const tolvfs_worm_info_t found = info();
    EXPECT_EQ(found.ctime_offset, ctime);
    EXPECT_EQ(found.ctime_offset_again, ctime);
    EXPECT_EQ(found.lock_remaining, remaining);
    EXPECT_EQ(found.worm_flags, reported);
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

TEST_F(Retention, InventsNoEntry) {
  SQLitePODB top(boost::filesystem::path(root.path()), boost::filesystem::path(root.path()));
  EXPECT_EQ(top.put(std::make_unique<FilePO>(file_text("img")).get()), CR_STATUS_OK);
  EXPECT_EQ(top.set_retention("img", RETENTION_IMMUTABLE, 0), CR_STATUS_NO_LOCATION);
  EXPECT_EQ(raw_sql(root.path("po.db"), "SELECT basename FROM po"), RawRows{{"img"}});
  log.expect_error(CR_STATUS_NO_LOCATION, "set_retention: put po failed for img");
  start_afresh(false);
  EXPECT_EQ(db.set_retention("img", RETENTION_LOCK, 1), CR_STATUS_NOT_FOUND);
  log.expect_error(CR_STATUS_NOT_FOUND, "set_retention: get po failed for img");
  EXPECT_EQ(info(CR_STATUS_NOT_FOUND).worm_flags, 0U);
  log.expect_error(CR_STATUS_NOT_FOUND, "get_retention: get po failed for img");
  store(~std::uint64_t{0});
  EXPECT_EQ(db.set_retention("IMG", RETENTION_IMMUTABLE, 0), CR_STATUS_OK);
  EXPECT_EQ(info().lock_remaining, std::numeric_limits<std::int64_t>::max());
  EXPECT_EQ(info().worm_flags, WORM_IMMUTABLE) << "its time is in the future, but it is no lock";
  EXPECT_EQ(sql("SELECT basename FROM po"), RawRows{{"img"}});
}

// The model is exact: a long double holds every 64-bit number, and the order of their sums.
TEST_F(Retention, EndsNoLockEarlyAndShortensNoneAtTheLimitsOfTheClock) {
  using Limits = std::numeric_limits<std::int64_t>;
  using Exact = long double;
  const std::int64_t limits[] = {-1, 0, 1, 5000, Limits::max() - 1, Limits::max(), Limits::min()};
  EXPECT_EQ(db.check_db_existence(true) + db.begin_transaction(), CR_STATUS_OK);
  for (const std::int64_t clock : limits) {
    for (const std::int64_t period : limits) {
      for (const std::int64_t current : limits) {
        SCOPED_TRACE(testing::PrintToString(std::vector{clock, period, current}));
        const auto before = static_cast<std::uint64_t>(current);
        store(before);
        const Exact wanted = Exact(clock) + Exact(period);
        const bool raised = wanted <= Exact(Limits::max()) && wanted >= Exact(before);
        fake_clock = clock;
        EXPECT_EQ(db.set_retention("img", RETENTION_LOCK, period) == CR_STATUS_OK, raised);
        FilePO entry(0);
        EXPECT_EQ(db.get("img", &entry), CR_STATUS_OK);
        EXPECT_EQ(Exact(POGetAtime(entry.record())), raised ? wanted : Exact(before));
        EXPECT_EQ(info().worm_flags, raised && period > 0 ? WORM_LOCKED : 0U);
        log.clear();
      }
    }
  }
}

// Each case is its own process: the mount point is found out once.
TEST_F(Retention, NeedsTheClockOfTheMountPointForLocksAndTheirReports) {
  const struct {
    std::string mount_file;  // what names the mount point
    const char* made;        // a directory that exists
    cr_status_t status, reason;
    const char* line;
  } cases[] = {{"/opt/m\nrest", "/opt/m", CR_STATUS_OK, 0, ""},
               {"/opt/gone\n", "/opt/halyard/arbor-manage/worm", CR_STATUS_OK, 0, ""},
               {"/opt/m\n", "/opt/other", CR_STATUS_NOT_PROVIDED, ENOENT,
                "get_compclk: compliance clock mount point is not existing"},
               {"/opt/s", "/opt/s", CR_STATUS_NOT_PROVIDED, EOPNOTSUPP,
                "get_compclk: compliance clock is not enabled"},
               {"/opt/q", "/opt/q", CR_STATUS_FAILED, 0,
                "get_compclk: fail to get compliance clock on mount point (/opt/q), errno=0"}};
  store(9999);
  ASSERT_EQ(db.set_retention("img", RETENTION_LOCK, 9999), CR_STATUS_OK);
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    in_private_mounts({"/etc", "/opt"}, [this, &c] {
      fake_clock.reset();
      std::filesystem::create_directories(c.made);
      write_file("/etc/tarn/worm", c.mount_file);
      EXPECT_EQ(db.set_retention("img", RETENTION_LOCK, 99999), c.status);
      EXPECT_EQ(info(c.status).worm_flags, c.status == CR_STATUS_OK ? WORM_LOCKED : 0U);
      if (c.status != CR_STATUS_OK) {
        for (int call = 0; call < 2; ++call) log.expect_error(c.status, c.line);
        log.expect_error(c.status,
                         "set_retention: get_compclk failed : errno = " + std::to_string(c.reason));
        log.expect_error(c.status, "get_retention: get compliance clock failed for img");
      }
      EXPECT_TRUE(log.messages(refhost::LogLevel::Error).empty());
      // The mount point is kept when it fails; the marker counts at once.
      std::filesystem::remove(c.made);
      write_file("/etc/tarn/worm", "/opt");
      timeval now{1, 1};
      EXPECT_EQ(get_compclk(&now) + get_compclk(nullptr), CR_STATUS_NOT_PROVIDED + 9);
      fake_clock = 1;
      EXPECT_EQ(get_compclk(&now) + now.tv_usec, CR_STATUS_OK);
    });
  }
}

}  // namespace
