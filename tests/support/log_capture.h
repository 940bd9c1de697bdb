// LogCapture: takes the log lines of a scope, so that a test can demand them one by one. An error
// line that nobody demanded fails the test at the end of the scope.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "refhost/control.h"

inline std::string describe_line(const refhost::LogLine& line) {
  return testing::PrintToString(static_cast<int>(line.level)) + " [" + std::to_string(line.status) +
         "] " + line.message;
}

// One at a time. LogLevel::Trace turns tracing on as well.
class LogCapture {
 public:
  explicit LogCapture(refhost::LogLevel level = refhost::LogLevel::Info)
      : old_level_(refhost::log_level()) {
    refhost::set_log_level(level);
    refhost::log_to_sink([kept = kept_](const refhost::LogLine& line) {
      const std::lock_guard<std::mutex> lock(kept->mutex);
      kept->lines.push_back(line);
    });
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    refhost::log_to_stderr();
    refhost::set_log_level(old_level_);
    for (const refhost::LogLine& line : lines()) {
      if (line.level == refhost::LogLevel::Error) {
        ADD_FAILURE() << "unexpected log line: " << describe_line(line);
      }
    }
  }

  // The lines that were not demanded so far, oldest first.
  std::vector<refhost::LogLine> lines() const {
    const std::lock_guard<std::mutex> lock(kept_->mutex);
    return kept_->lines;
  }

  // As lines(), the messages of one level only.
  std::vector<std::string> messages(refhost::LogLevel level) const {
    std::vector<std::string> found;
    for (const refhost::LogLine& line : lines()) {
      if (line.level == level) found.push_back(line.message);
    }
    return found;
  }

  // True when there is exactly such a line. It is taken away.
  bool take(refhost::LogLevel level, cr_status_t status, const std::string& message) {
    const std::lock_guard<std::mutex> lock(kept_->mutex);
    auto& all = kept_->lines;
    const auto found = std::find_if(all.begin(), all.end(), [&](const refhost::LogLine& line) {
      return line.level == level && line.status == status && line.message == message;
    });
    if (found == all.end()) return false;
    all.erase(found);
    return true;
  }

  // Fails the test unless there is exactly such a line; takes it away.
  void expect(refhost::LogLevel level, cr_status_t status, const std::string& message) {
    if (take(level, status, message)) return;
    std::string seen;
    for (const refhost::LogLine& line : lines()) seen += "\n  " + describe_line(line);
    ADD_FAILURE() << "no log line: " << describe_line({level, status, message})
                  << "\nseen:" << seen;
  }
  void expect_error(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Error, status, message);
  }
  void expect_warning(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Warning, status, message);
  }
  void expect_info(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Info, status, message);
  }

  // Forgets the lines so far, errors included.
  void clear() {
    const std::lock_guard<std::mutex> lock(kept_->mutex);
    kept_->lines.clear();
  }

 private:
  struct Kept {
    std::mutex mutex;
    std::vector<refhost::LogLine> lines;
  };

  const refhost::LogLevel old_level_;
  const std::shared_ptr<Kept> kept_ = std::make_shared<Kept>();  // a late line may still arrive
};
