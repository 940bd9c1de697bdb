// Runs an operation under a fault at every position, until it runs without reaching one.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "tests/faults/fault.h"
#include "tests/faults/world.h"
#include "tests/support/temp_dir.h"

class Matrix {
 public:
  explicit Matrix(const Operation& operation);

  // Every n, once and for good.
  void run(Fault fault);

  // What contradicts the promises, a line each.
  const std::vector<std::string>& violations() const { return violations_; }

  bool reached(Fault fault) const { return tallies_.count(fault) > 0; }
  // Of each fault: the points, how many needed the object closed, and the statuses.
  std::string figures() const;

 private:
  struct Point {
    Fault fault;
    long n;
    bool for_good;
    std::string name() const;
  };
  struct Tally {
    long points = 0, closed = 0;
    std::map<cr_status_t, long> statuses;
  };

  bool reached_at(const Point& point);
  void check_end(const Point& point, World& world, cr_status_t status);
  bool is_specified(Fault fault, cr_status_t status) const;
  bool is_empty_leftover(cr_status_t status) const;
  void restore() const;
  Rows rows_now(const std::string& when);
  void blame(const std::string& what);

  const Operation& operation_;
  const TempDir place_;
  const std::string catalog_ = place_.path("cat"), original_ = place_.path("original");
  Rows before_, after_;
  std::map<Fault, Tally> tallies_;
  std::vector<std::string> violations_;
};
