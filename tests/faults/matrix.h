// Runs one operation with faults in its way, and tells what contradicts the promises.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <map>
#include <optional>

#include "sqlitedb/sqlite_wrapper.h"
#include "tests/faults/fault.h"
#include "tests/faults/world.h"
#include "tests/support/files.h"
#include "tests/support/intact.h"
#include "tests/support/temp_dir.h"

struct Kind {
  Fault fault;
  const char* name;
  std::set<cr_status_t> answers;  // besides 0
};

// What the host and the library may throw is what memory running out looks like.
inline cr_status_t run_caught(const Operation& operation, World& world) try {
  return operation.run(world, operation.rows);
} catch (const std::bad_alloc&) {
  return CR_STATUS_NO_MEMORY;
} catch (const Cr_ErrnoException& caught) {
  return caught.status();
} catch (const sqlitedb::db_exception& caught) {
  return caught.cr_status();
}

class Matrix {
 public:
  explicit Matrix(const Operation& operation) : operation_(operation) {
    std::filesystem::create_directory(catalog_);
    operation_.prepare(*std::make_unique<World>(catalog_), operation_.rows);
    std::filesystem::rename(catalog_, original_);
    restore();
    before_ = rows_now();
    restore();
    const cr_status_t status = run_caught(operation_, *std::make_unique<World>(catalog_));
    if (status != CR_STATUS_OK) blame("fails without a fault");
    after_ = rows_now();
  }

  // At every position, once and for good, until the operation runs without reaching it. Returns how
  // often it answered what.
  std::map<cr_status_t, long> run(const Kind& kind) {
    std::map<cr_status_t, long> statuses;
    for (const bool for_good : {false, true}) {
      for (long n = 1; const auto status = run_under(kind, n, for_good); ++n) ++statuses[*status];
    }
    std::cout << "[ figures ] " << operation_.name << ", " << kind.name
              << ", status and times: " << testing::PrintToString(statuses) << "\n";
    return statuses;
  }

  // A line each.
  const std::vector<std::string>& violations() const { return violations_; }

 private:
  using Rows = std::vector<std::string>;

  std::optional<cr_status_t> run_under(const Kind& kind, long n, bool for_good) {
    restore();
    now_ = std::string(kind.name) + " " + std::to_string(n) + (for_good ? " for good" : "");
    const Held before = held();
    auto world = std::make_unique<World>(catalog_);
    arm(kind.fault, n, for_good);
    const cr_status_t status = run_caught(operation_, *world);
    if (!disarm()) return std::nullopt;
    judge(*world, status);
    world.reset();
    const Held after = held();
    if (after != before) blame("holds " + testing::PrintToString(after) + " in the end");
    const auto specified = kind.answers.count(status) + operation_.also.count(status);
    if (status != CR_STATUS_OK && specified == 0) blame("answers " + std::to_string(status));
    return status;
  }

  // All or nothing.
  void judge(World& world, cr_status_t status) {
    if (world.roll_back() != CR_STATUS_OK) blame("cannot be rolled back");
    const Rows found = rows_now();
    const bool right = found == after_ || (status != CR_STATUS_OK && found == before_);
    if (!right) blame("answers " + std::to_string(status) + " and leaves other rows");
    const bool done = found == after_ && found != before_;
    const cr_status_t again = run_again(world);
    if (again != CR_STATUS_OK && !done) blame("does not work on: " + std::to_string(again));
    if (rows_now() != after_) blame("does not do it again");
  }

  // On the same object, unless a creation failed: that may leave a file without content behind,
  // which is not taken for a database until somebody removes it.
  cr_status_t run_again(World& world) {
    const cr_status_t status = run_caught(operation_, world);
    if (status == CR_STATUS_OK || std::filesystem::exists(original_ + "/5")) return status;
    world.roll_back();
    world.close();
    for (const char* name : {"/po.db", "/ul.db"}) {
      if (!intact::has_content(world.dir + name)) std::filesystem::remove(world.dir + name);
    }
    return run_caught(operation_, world);
  }

  void restore() const {
    std::filesystem::remove_all(catalog_);
    std::filesystem::copy(original_, catalog_, std::filesystem::copy_options::recursive);
  }

  // What the directory holds, sorted.
  Rows rows_now() {
    const std::string dir = catalog_ + "/5/c/p";
    Rows rows;
    intact::Faults faults;
    const auto take = [&rows](sqlite3_stmt* row) { rows.push_back(intact::text(row, 0)); };
    intact::check_database(dir + "/po.db", "SELECT basename || poid || content || crc FROM po",
                           faults, take);
    intact::check_database(dir + "/ul.db", "SELECT poid || hex(udcids) FROM utable", faults, take);
    rows.push_back(read_file(dir + "/__dirpo__"));
    std::sort(rows.begin(), rows.end());
    for (const std::string& fault : faults) blame(fault);
    return rows;
  }

  void blame(const std::string& what) {
    violations_.push_back(std::string(operation_.name) + ", " + now_ + ": " + what);
  }

  const Operation operation_;
  const TempDir place_;
  const std::string catalog_ = place_.path("catalog"), original_ = place_.path("original");
  Rows before_, after_;
  std::string now_;  // what is in the way
  std::vector<std::string> violations_;
};
