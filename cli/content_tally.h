// Counting of different contents and containers, however many there are.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cli/sqlite_reader.h"
#include "host/status.h"

namespace cli {

struct ContentTotals {
  std::uint64_t contents = 0;  // different ones
  std::uint64_t unique = 0;    // of these: used by one file
  std::uint64_t shared = 0;    // used by several
  std::uint64_t bytes = 0;     // each content once
  std::uint64_t containers = 0;
};

// Keeps what it has seen in a temporary file of SQLite's, which has no name and vanishes with the
// object; where it lies, TMPDIR says. About 80 bytes for each file and 20 for each container of a
// list, and as much again while it counts. Memory stays within a few megabytes.
class ContentTally {
 public:
  ContentTally();

  void add_file(const std::string& poid, std::uint64_t size);
  void add_container(std::uint64_t container);

  // Of all that was added. A status when the temporary file failed at any time.
  cr_status_t count(ContentTotals* totals);

 private:
  void run(const std::string& sql);
  void insert(Statement* statement);
  void keep(int code);

  Connection scratch_;
  std::unique_ptr<Statement> add_file_;
  std::unique_ptr<Statement> add_container_;
  int failure_ = SQLITE_OK;
};

}  // namespace cli
