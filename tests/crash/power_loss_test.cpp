// The power fails after every change of the disk, and again while a database recovers: what was
// acknowledged is there, whole, and nothing is torn.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>

#include <cstring>
#include <optional>

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/crash/memory_disk.h"
#include "tests/support/intact.h"

namespace {

// Runs in place of the library's own setting, to see what others are worth.
const char* other_setting = nullptr;

}  // namespace

int sqlite3_exec(sqlite3* db, const char* sql, int (*row)(void*, int, char**, char**), void* out,
                 char** error) {
  static const auto real =
      reinterpret_cast<decltype(&sqlite3_exec)>(dlsym(RTLD_NEXT, "sqlite3_exec"));
  const bool replaced = other_setting != nullptr && std::strstr(sql, "synchronous") != nullptr;
  return real(db, replaced ? other_setting : sql, row, out, error);
}

namespace {

using Random = std::mt19937;
using Rows = std::map<std::string, unsigned long>;

const std::string kRoot = "/catalog";
const std::string kDirectory = "/catalog/5/c/p";

// What one database was told to hold.
struct Ledger {
  std::vector<std::shared_ptr<const Rows>> acknowledged;  // the last is in force; none: no database
  std::shared_ptr<const Rows> underway;                   // what a running commit will make of it
};

// What one database holds; nothing when it was never created or its creation was cut.
using Found = std::optional<Rows>;

struct Image {
  MemoryDisk disk;
  Ledger po, ul;
};

class Lists : public SQLiteULDB {
 public:
  Lists() : SQLiteULDB(kDirectory, 0) {}
  using SQLiteULDB::db_exec;
};

Found read_po() {
  SQLitePODB database(kRoot, kDirectory);
  POQueue entries;
  if (database.select(QueryParams(), nullptr, &entries) != CR_STATUS_OK) return {};
  Rows rows;
  for (const auto& entry : entries) {
    rows[POGetBasename(entry->record())] = POGetSize(entry->record());
  }
  return rows;
}

Rows* read_lists = nullptr;

cr_status_t read_list(const char* poid, UDCIDRecord* list) {
  (*read_lists)[poid] = list->dcids[0];
  return CR_STATUS_OK;
}

Found read_ul() {
  Lists database;
  Rows rows;
  read_lists = &rows;
  if (database.db_missing() || database.get_all(read_list) != CR_STATUS_OK) return {};
  return rows;
}

// The two databases of a directory, in use.
class Catalog {
 public:
  Catalog(Ledger of_po, Ledger of_ul, Random& source)
      : po(std::move(of_po)), ul(std::move(of_ul)), random_(source) {}

  // Few pages in memory make SQLite write to the database before a commit.
  void spill() {
    po_database_.exec_sql("PRAGMA cache_size=2", nullptr);
    ul_database_.db_exec("PRAGMA cache_size=2");
  }

  void change_po() {
    change(po, po_database_, [this](const std::string& name, unsigned long value) {
      if (value == 0) return po_database_.del(name);
      auto fields = file_fields(name, make_poid(value), value, "/c/p");
      fields.owner = std::string(value * 7 % 120, 'x');
      FilePO entry(text_of(fields));
      return po_database_.put(&entry);
    });
  }
  void change_ul() {
    change(ul, ul_database_, [this](const std::string& name, unsigned long value) {
      if (value == 0) return ul_database_.del(name.c_str());
      std::vector<std::uint64_t> numbers(2 * (1 + value * 7 % 90), value);
      UDCIDRecord list(static_cast<unsigned int>(numbers.size() / 2),
                       reinterpret_cast<unsigned char*>(numbers.data()));
      return ul_database_.put(name.c_str(), &list, nullptr);
    });
  }

  Ledger po, ul;
  std::function<void()> acknowledged;  // after each acknowledgement; may be empty

 private:
  static void must(cr_status_t status) { EXPECT_EQ(status, CR_STATUS_OK); }

  // Values are new ones, or 0 for rows that go.
  Rows changes(const Rows& rows, unsigned long most) {
    Rows changed;
    for (unsigned long left = 1 + random_() % most; left > 0; --left) {
      const std::string name = "row" + std::to_string(random_() % 16);
      const bool goes = changed.count(name) == 0 && rows.count(name) != 0 && random_() % 4 == 0;
      changed[name] = goes ? 0 : 64 + random_() % 1000000;
    }
    return changed;
  }

  template <typename Database, typename Store>
  void change(Ledger& ledger, Database& database, Store store) {
    const unsigned long kind = random_() % 8;
    const bool alone = kind == 0, rolled_back = kind == 1;
    Rows next = ledger.acknowledged.empty() ? Rows() : *ledger.acknowledged.back();
    const Rows changed = changes(next, alone ? 1 : kind == 2 ? 20 : 5);
    for (const auto& [name, value] : changed) value == 0 ? next.erase(name) : (next[name] = value);
    if (!rolled_back) ledger.underway = std::make_shared<const Rows>(std::move(next));
    if (!alone) must(database.begin_transaction());
    for (const auto& [name, value] : changed) must(store(name, value));
    if (rolled_back) return must(database.rollback_transaction());
    if (!alone) must(database.commit_transaction());
    ledger.acknowledged.push_back(std::move(ledger.underway));
    if (acknowledged) acknowledged();
  }

  Random& random_;
  SQLitePODB po_database_{kRoot, kDirectory};
  Lists ul_database_;
};

struct Figures {
  unsigned long images = 0, second_cuts = 0, recoveries = 0, lost = 0, torn = 0, corrupt = 0;
  std::string first;  // what was wrong with the first bad image
};

class PowerLoss : public testing::Test {
 protected:
  void SetUp() override {
    refhost::set_log_level(refhost::LogLevel::Error);
    refhost::log_to_sink([](const refhost::LogLine&) {});
  }
  void TearDown() override {
    other_setting = nullptr;
    refhost::log_to_stderr();
  }

  // Cuts the power after every change that a workload of its own makes.
  void run(unsigned int seed, bool disk_syncs = true) {
    Random random(seed);
    MemoryDisk disk;
    disk.syncs = disk_syncs;
    use_disk(&disk);
    Catalog catalog({}, {}, random);
    std::vector<Image> images;
    const auto cut = [&] {
      images.push_back({disk.after_power_loss(random), catalog.po, catalog.ul});
    };
    disk.changed = catalog.acknowledged = cut;
    for (int transaction = 0; transaction < 24; ++transaction) {
      random() % 2 == 0 ? catalog.change_po() : catalog.change_ul();
      if (transaction == 4 && seed % 2 == 0) catalog.spill();
      for (Image& image : images) check(image, &random, seed);
      images.clear();
      use_disk(&disk);
    }
    disk.changed = nullptr;
  }

  void report(const std::string& name) const {
    std::printf(
        "%s: %lu images, %lu of them of a recovery or of the work after it, %lu recovered "
        "by a journal; %lu lost, %lu torn, %lu corrupt\n",
        name.c_str(), figures_.images, figures_.second_cuts, figures_.recoveries, figures_.lost,
        figures_.torn, figures_.corrupt);
  }

  Figures figures_;

 private:
  // Recovers and judges an image. With a source of chance the databases are used further, and the
  // power fails once more at some moment meanwhile.
  void check(Image& image, Random* random, unsigned int seed) {
    ++figures_.images;
    use_disk(&image.disk);
    std::optional<Image> second;
    unsigned int moments = 0;
    const auto may_cut = [&](const Ledger& po, const Ledger& ul) {
      if (random != nullptr && (*random)() % ++moments == 0) {
        second.emplace(Image{image.disk.after_power_loss(*random), po, ul});
      }
    };
    bool recovered = false;
    image.disk.changed = [&] { recovered = true, may_cut(image.po, image.ul); };
    const Found po = read_po(), ul = read_ul();
    if (recovered) ++figures_.recoveries;
    const bool whole = judge(po, image.po, seed) && judge(ul, image.ul, seed) && intact(seed);
    if (whole && random != nullptr && po && ul) {
      Catalog catalog({{std::make_shared<Rows>(*po)}, nullptr},
                      {{std::make_shared<Rows>(*ul)}, nullptr}, *random);
      image.disk.changed = [&] { may_cut(catalog.po, catalog.ul); };
      catalog.acknowledged = image.disk.changed;
      catalog.change_po();
      catalog.change_ul();
      image.disk.changed = nullptr;
    }
    image.disk.changed = nullptr;
    if (!second) return;
    ++figures_.second_cuts;
    check(*second, nullptr, seed);
  }

  bool judge(const Found& found, const Ledger& ledger, unsigned int seed) {
    static const Rows kNone;
    const Rows& rows = found ? *found : kNone;
    const auto is = [&](const std::shared_ptr<const Rows>& other) {
      return other != nullptr && *other == rows;
    };
    const auto& acknowledged = ledger.acknowledged;
    if (acknowledged.empty() ? rows.empty() : found && is(acknowledged.back())) return true;
    if (is(ledger.underway)) return true;
    const bool old = rows.empty() || std::any_of(acknowledged.begin(), acknowledged.end(), is);
    blame(old ? figures_.lost : figures_.torn, old ? "lost" : "torn", seed);
    return false;
  }

  bool intact(unsigned int seed) {
    const intact::Faults faults = intact::faults_of(kDirectory);
    if (!faults.empty()) blame(figures_.corrupt, faults.front(), seed);
    return faults.empty();
  }

  void blame(unsigned long& figure, const std::string& what, unsigned int seed) {
    ++figure;
    if (figures_.first.empty()) figures_.first = what + ", seed " + std::to_string(seed);
  }
};

TEST_F(PowerLoss, takes_no_acknowledged_transaction_and_tears_none) {
  const unsigned long images = sized("POCATALOG_POWER_LOSS_IMAGES", 20000);
  for (unsigned int seed = 1; figures_.images < images; ++seed) run(seed);
  report("as the library sets it");
  EXPECT_EQ(figures_.lost + figures_.torn + figures_.corrupt, 0U) << figures_.first;
  EXPECT_GT(figures_.recoveries, figures_.images / 10) << "the harness cuts where nothing happens";
}

// What must be seen to fail, or else nothing was seen above.
TEST_F(PowerLoss, is_survived_by_no_weaker_setting_and_by_no_disk_that_lies) {
  struct {
    const char* name;
    const char* setting;
    bool syncs, loses, corrupts;
  } const cases[] = {
      {"synchronous=FULL", "PRAGMA synchronous=FULL", true, true, false},
      {"a truncated journal", "PRAGMA journal_mode=TRUNCATE", true, false, false},
      {"synchronous=OFF", "PRAGMA synchronous=OFF", true, true, true},
      {"a disk that ignores syncs", nullptr, false, true, true},
  };
  const unsigned long images = sized("POCATALOG_POWER_LOSS_IMAGES", 20000) / 20;
  for (const auto& row : cases) {
    other_setting = row.setting;
    figures_ = {};
    for (unsigned int seed = 1; figures_.images < images; ++seed) run(seed, row.syncs);
    report(row.name);
    EXPECT_EQ(figures_.lost > 0, row.loses) << row.name;
    EXPECT_EQ(figures_.torn + figures_.corrupt > 0, row.corrupts) << row.name << figures_.first;
  }
}

}  // namespace
