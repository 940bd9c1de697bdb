// The log of the patrol.
#pragma once

#include <cstdint>
#include <streambuf>
#include <string>

#include "host/status.h"

namespace cli {

// The name that belongs to the patrol of that catalog alone: of its lock, and the start of those of
// its logs. An absolute root can be longer than a file's name, so a hash of it stands there.
std::string patrol_name(const std::string& root);

// One file of log lines for each day (UTC), LOG-DIR/NAME-2026-03-04.log.
class PatrolLog {
 public:
  PatrolLog(const std::string& directory, const std::string& name)
      : directory_(directory), prefix_(directory + "/" + name + "-") {}

  // Sends the log lines of this process to today's file.
  cr_status_t open() const;

  // Removes this patrol's own files that are older, in whole days, rounded up; nothing else that
  // lies in the directory.
  void clean(std::int64_t seconds) const;

 private:
  const std::string directory_;
  const std::string prefix_;
};

// What is printed here becomes log lines, as errors or as warnings. Used by one thread.
class LogLines : public std::streambuf {
 public:
  enum Level { error, warning };
  explicit LogLines(Level level) : level_(level) {}

 private:
  int_type overflow(int_type character) override;

  const Level level_;
  std::string line_;
};

}  // namespace cli
