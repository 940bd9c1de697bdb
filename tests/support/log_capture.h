// LogCapture: takes the log lines of a scope, so that a test can demand them one by one. An error
// line that nobody demanded fails the test at the end of the scope.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "refhost/control.h"

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
        ADD_FAILURE() << "unexpected log line: [" << line.status << "] " << line.message;
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

  // Fails the test unless there is exactly such a line; takes it away.
  void expect(refhost::LogLevel level, cr_status_t status, const std::string& message) {
    const std::lock_guard<std::mutex> lock(kept_->mutex);
    std::string seen;
    for (auto line = kept_->lines.begin(); line != kept_->lines.end(); ++line) {
      if (line->level == level && line->status == status && line->message == message) {
        kept_->lines.erase(line);
        return;
      }
      seen += "\n  [" + std::to_string(line->status) + "] " + line->message;
    }
    ADD_FAILURE() << "no log line: [" << status << "] " << message << "\nseen:" << seen;
  }
  void expect_error(cr_status_t status, const std::string& message) {
    expect(refhost::LogLevel::Error, status, message);
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
