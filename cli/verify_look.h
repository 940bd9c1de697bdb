// What one look at a directory of the catalog finds, its rows apart.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/findings.h"

namespace cli {

// What a look finds, kept until it is known to last.
class Look {
 public:
  // `disturbed`: somebody else works in the directory meanwhile.
  explicit Look(bool disturbed) : disturbed_(disturbed) {}

  void add(const std::string& file, const std::string& reason) {
    found_.push_back({file, reason, CR_STATUS_OK});
  }
  // Something could not be looked at.
  void add_unexamined(const std::string& file, cr_status_t status, const std::string& reason) {
    found_.push_back({file, reason, status});
  }
  // A database without content: whoever begins one has it, too, until the first commit.
  void add_empty(const std::string& file);
  void count_database() { ++databases_; }

  bool found_nothing() const { return found_.empty(); }

  // Tells all of it, once.
  void tell(Findings* findings);

 private:
  struct Found {
    std::string file;
    std::string reason;
    cr_status_t unexamined;  // 0 for a finding
  };

  const bool disturbed_;
  std::vector<Found> found_;
  std::uint64_t databases_ = 0;
};

}  // namespace cli
