// What a check of the catalog finds.
#pragma once

#include <cstdint>
#include <string>

#include "cli/command.h"

namespace cli {

// Prints one line for each thing that is wrong, and counts.
class Findings {
 public:
  explicit Findings(const Console& console) : console_(console) {}

  void add(const std::string& file, const std::string& reason);
  // `name` may be any bytes: that of a damaged row.
  void add_row(const std::string& file, const std::string& name, std::int64_t rowid,
               const std::string& reason);

  // Something could not be looked at, which says nothing about it.
  void add_unexamined(const std::string& file, cr_status_t status, const std::string& reason);

  void count_database() { ++databases_; }
  void count_row() { ++rows_; }

  // Prints the totals and returns the exit status.
  int conclude() const;

 private:
  const Console& console_;
  std::uint64_t databases_ = 0;
  std::uint64_t rows_ = 0;
  std::uint64_t damaged_rows_ = 0;
  std::uint64_t other_ = 0;
  std::uint64_t unexamined_ = 0;
};

}  // namespace cli
