#include "cli/cause.h"

#include <sqlite3.h>

#include <cerrno>
#include <cstdlib>
#include <exception>
#include <system_error>

namespace cli {
namespace {

struct Cause {
  std::string text;
  bool of_system = false;  // which says more than what SQLite makes of it
};

Cause& cause() {
  thread_local Cause kept;
  return kept;
}

std::string text_of_errno(int error) { return std::generic_category().message(error); }

// Of "os_unix.c:44321: (13) open(/catalog/5/po.db) - " the call and what the number means; empty
// when it is not about a call of the system.
std::string system_text(const std::string& message) {
  const std::size_t start = message.find(": (");
  const std::size_t end = message.find(") ", start);
  if (message.compare(0, 3, "os_") != 0 || end == std::string::npos) return "";
  const std::size_t call = end + 2;
  const int error = std::atoi(message.c_str() + start + 3);
  return message.substr(call, message.rfind(" - ") - call) + ": " + text_of_errno(error);
}

// SQLite does not log a commit that fails for these.
bool is_disk_fault(int error) {
  return error == ENOSPC || error == EDQUOT || error == EFBIG || error == EROFS;
}

bool is_failure(int code) {
  const int primary = code & 0xff;
  return primary != SQLITE_OK && primary != SQLITE_NOTICE && primary != SQLITE_WARNING &&
         primary != SQLITE_SCHEMA;  // that one is tried again
}

// The code alone says nothing of a statement's fault.
std::string sqlite_text(int code, const char* message) {
  return code == SQLITE_ERROR ? message : sqlite3_errstr(code);
}

// The first failure is the cause of those that follow. Called by SQLite: nothing may leave it.
void on_sqlite_log(void* /*unused*/, int code, const char* message) noexcept {
  if (!is_failure(code)) return;
  try {
    const std::string text = system_text(message);
    if (!text.empty() && !cause().of_system) cause() = {text, true};
    if (cause().text.empty()) cause() = {sqlite_text(code, message), false};
  } catch (const std::exception&) {
    return;  // without memory there is no cause to tell
  }
}

}  // namespace

void watch_sqlite() {
  using Log = void (*)(void*, int, const char*);
  const Log log = on_sqlite_log;
  sqlite3_config(SQLITE_CONFIG_LOG, log, nullptr);
}

cr_status_t keep_errno_of(cr_status_t status) {
  if (needs_cause(status) && errno != 0) cause() = {text_of_errno(errno), true};
  return status;
}

void keep_cause(const std::string& text) { cause() = {text, true}; }

std::string take_cause() {
  std::string text;
  text.swap(cause().text);
  cause().of_system = false;
  if (text.empty() && is_disk_fault(errno)) text = text_of_errno(errno);
  errno = 0;
  return text;
}

bool needs_cause(cr_status_t status) {
  return status == CR_STATUS_FAILED || status == CR_STATUS_IO_ERROR;
}

}  // namespace cli
