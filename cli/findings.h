// What a check of the catalog finds.
#pragma once

#include <cstdint>
#include <string>

#include "cli/check_observer.h"
#include "cli/command.h"

namespace cli {

// Prints one line for each thing that is wrong, and counts.
class Findings {
 public:
  // `observer` may be null; both outlive the findings.
  explicit Findings(const Console& console, CheckObserver* observer = nullptr)
      : console_(console), observer_(observer) {}

  void add(const std::string& file, const std::string& reason);
  // `name` may be any bytes: that of a damaged row.
  void add_row(const std::string& file, const std::string& name, std::int64_t rowid,
               const std::string& reason);

  // An entry's content has no list of containers; `entries` entries have that content.
  void add_content_without_list(const std::string& entry, const std::string& poid,
                                std::uint64_t entries);
  // The database `file` has a list for a content that no entry has.
  void add_lone_list(const std::string& file, const std::string& poid);

  // Something could not be looked at, which says nothing about it.
  void add_unexamined(const std::string& file, cr_status_t status, const std::string& reason);

  // Adds what others have counted, and printed.
  void add_counts(const Findings& others);

  void count_database() { ++databases_; }
  void count_row() { ++rows_; }

  // What the observer is told.
  void sound_record(const std::string& text) {
    if (observer_ != nullptr) observer_->sound_record(text);
  }
  void between_pages() {
    if (observer_ != nullptr) observer_->between_pages();
  }

  // Prints the totals and returns the exit status.
  int conclude() const;
  int exit_status() const;

  std::uint64_t databases() const { return databases_; }
  std::uint64_t rows() const { return rows_; }
  std::uint64_t damaged_rows() const { return damaged_rows_; }
  std::uint64_t other() const { return other_; }
  std::uint64_t contents_without_list() const { return contents_without_list_; }
  std::uint64_t lone_lists() const { return lone_lists_; }
  std::uint64_t unexamined() const { return unexamined_; }

 private:
  void print(const std::string& file, const std::string& poid, const std::string& reason);

  const Console& console_;
  CheckObserver* const observer_;
  std::uint64_t databases_ = 0;
  std::uint64_t rows_ = 0;
  std::uint64_t damaged_rows_ = 0;
  std::uint64_t contents_without_list_ = 0;
  std::uint64_t lone_lists_ = 0;
  std::uint64_t other_ = 0;  // these two among them
  std::uint64_t unexamined_ = 0;
};

}  // namespace cli
