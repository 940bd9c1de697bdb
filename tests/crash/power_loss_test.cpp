// The power fails after every change of the disk, and again while a database recovers: what was
// acknowledged is there, whole, and nothing is torn.

#include <algorithm>

#include "tests/crash/disk.h"
#include "tests/crash/lane.h"

namespace {

using Rows = std::map<std::string, unsigned long>;

// What one database was told to hold.
struct Ledger {
  std::vector<Rows> acknowledged = {Rows()};  // the last is in force
  Rows underway;                              // what a running commit makes of it
};

Rows all_of(SQLitePODB&& database) {
  POQueue entries;
  Rows rows;
  database.select(QueryParams(), nullptr, &entries);
  for (const auto& entry : entries) {
    rows[POGetBasename(entry->record())] = POGetSize(entry->record());
  }
  return rows;
}

Rows all_of(SQLiteULDB&& database) {
  static Rows lists;
  lists.clear();
  const auto take = [](const char* poid, UDCIDRecord* list) {
    return lists[poid] = list->dcids[0], CR_STATUS_OK;
  };
  if (!database.db_missing()) database.get_all(take);
  return lists;
}

class PowerLoss : public Lane {
 protected:
  // Cuts the power after every change that workloads make.
  void run(const char* name, unsigned long images, const char* setting = "", bool syncs = true) {
    images_ = second_cuts_ = recoveries_ = lost_ = torn_ = 0;
    disks_[0].syncs = syncs;
    for (seed_ = sized("POCATALOG_POWER_LOSS_SEED", 1); images_ < images; ++seed_) work(setting);
    std::printf("%s: %lu images, %lu second cuts, %lu recovered by a journal; %lu lost, %lu torn\n",
                name, images_, second_cuts_, recoveries_, lost_, torn_);
  }

  unsigned long images_ = 0, second_cuts_ = 0, recoveries_ = 0, lost_ = 0, torn_ = 0;
  unsigned long seed_ = 0, bad_seed_ = 0;

 private:
  void work(const char* setting) {
    random_.seed(static_cast<unsigned int>(seed_));
    Disk& disk = disks_[0];
    disk.clear();
    disk.changed = [&] { check(0); };
    disk_in_use = &disk;
    po_ = ul_ = Ledger();
    SQLitePODB entries(disk.root.path(), disk.directory);
    SQLiteULDB containers(disk.directory, 0);
    must(entries.check_db_existence(true));
    must(entries.exec_sql(setting, nullptr));
    // Few pages in memory make SQLite write to the database before a commit.
    if (seed_ % 2 == 0) must(entries.exec_sql("PRAGMA cache_size=2", nullptr));
    for (int transaction = 0; transaction < 24; ++transaction) {
      random_() % 2 == 0 ? change(entries, po_) : change(containers, ul_);
      disk.changed();
    }
    disk_in_use = nullptr;
  }

  template <typename Database>
  void change(Database& database, Ledger& ledger) {
    const unsigned long kind = random_() % 8;
    const bool alone = kind == 0, rolled_back = kind == 1;
    Rows changed, next = ledger.acknowledged.back();  // 0 for a row that goes
    for (auto left = alone ? 1 : 1 + random_() % (kind == 2 ? 20 : 5); left > 0; --left) {
      const std::string name = "row" + std::to_string(random_() % 16);
      changed[name] = next.count(name) != 0 && random_() % 4 == 0 ? 0 : 64 + random_() % 1000000;
    }
    for (const auto& [name, value] : changed) value == 0 ? next.erase(name) : (next[name] = value);
    if (!rolled_back) ledger.underway = next;
    if (!alone) must(database.begin_transaction());
    for (const auto& [name, value] : changed) {
      const char* const row = name.c_str();
      value != 0 ? store(database, row, value) : must(database.del(row));
    }
    if (rolled_back) return must(database.rollback_transaction());
    if (!alone) must(database.commit_transaction());
    ledger.acknowledged.push_back(std::move(next));
  }

  // Fails the power, recovers and judges; the power may fail once more during that.
  void check(std::size_t cuts) {
    Disk &failing = disks_[cuts], &image = disks_[cuts + 1];
    bool recovered = false;
    image.changed = [&] {
      recovered = true;
      if (cuts == 0 && random_() % 4 == 0) ++second_cuts_, check(1);
    };
    disk_in_use = nullptr;
    image.restart_after(failing, random_);
    disk_in_use = &image;
    judge(all_of(SQLitePODB(image.root.path(), image.directory)), po_);
    judge(all_of(SQLiteULDB(image.directory, 0)), ul_);
    if (!intact::faults_of(image.directory).empty()) blame(torn_);
    ++images_, recoveries_ += recovered;
    disk_in_use = &failing;
  }

  void judge(const Rows& rows, const Ledger& ledger) {
    const auto& all = ledger.acknowledged;
    if (rows == all.back() || rows == ledger.underway) return;
    const bool old = std::find(all.begin(), all.end(), rows) != all.end();
    blame(old ? lost_ : torn_);
  }

  void blame(unsigned long& figure) { ++figure, bad_seed_ = seed_; }

  Disk disks_[3];  // the catalog, what a cut leaves of it, and a second one of that
  std::mt19937 random_;
  Ledger po_, ul_;
};

TEST_F(PowerLoss, takes_no_acknowledged_transaction_and_tears_none) {
  run("as the library sets it", sized("POCATALOG_POWER_LOSS_IMAGES", 20000));
  EXPECT_EQ(lost_ + torn_, 0U) << "seed " << bad_seed_;
  EXPECT_GT(recoveries_, images_ / 10) << "the harness cuts where nothing happens";
}

// What must be seen to fail, or else nothing was seen above.
TEST_F(PowerLoss, is_survived_by_no_weaker_setting_and_by_no_disk_that_lies) {
  run("synchronous=FULL", 1000, "PRAGMA synchronous=FULL");
  EXPECT_GT(lost_, 0U);
  run("a disk that ignores syncs", 1000, "", false);
  EXPECT_GT(torn_, 0U);
}

}  // namespace
