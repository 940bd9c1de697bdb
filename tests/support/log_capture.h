// LogCapture: takes the log lines of a scope, so that a test can demand them one by one. An error
// line that nobody demanded fails the test at the end of the scope.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <tuple>

#include "refhost/control.h"

// One at a time. LogLevel::Trace turns tracing on as well.
class LogCapture {
 public:
  explicit LogCapture(refhost::LogLevel level = refhost::LogLevel::Info) {
    clear();
    refhost::set_log_level(level);
    refhost::log_to_sink([](const refhost::LogLine& line) {
      const std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(line);
    });
  }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;
  ~LogCapture() {
    refhost::log_to_stderr();
    refhost::set_log_level(refhost::LogLevel::Info);
    for (const std::string& message : messages(refhost::LogLevel::Error)) {
      ADD_FAILURE() << "unexpected log line: " << message;
    }
  }

  // The lines that were not demanded so far, oldest first; or the messages of one level.
  std::vector<refhost::LogLine> lines() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return lines_;
  }
  std::vector<std::string> messages(refhost::LogLevel level) const {
    std::vector<std::string> found;
    for (const refhost::LogLine& line : lines()) {
      if (line.level == level) found.push_back(line.message);
    }
    return found;
  }

  // Fails the test unless there is exactly such a line; takes it away.
  void expect(refhost::LogLevel level, cr_status_t status, const std::string& message) {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = std::find_if(lines_.begin(), lines_.end(), [&](const auto& line) {
      return std::tie(line.level, line.status, line.message) == std::tie(level, status, message);
    });
    if (found != lines_.end()) return void(lines_.erase(found));
    ADD_FAILURE() << "no log line: [" << status << "] " << message;
  }
  void expect_error(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Error, status, message);
  }
  void expect_info(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Info, status, message);
  }

  // Forgets the lines so far, errors included.
  void clear() {
    const std::lock_guard<std::mutex> lock(mutex_);
    lines_.clear();
  }

 private:
  // Outlive every capture: a late line may still arrive.
  static inline std::mutex mutex_;
  static inline std::vector<refhost::LogLine> lines_;
};
