#include "host/log.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <memory>
#include <mutex>
#include <string_view>
#include <utility>

#include "refhost/control.h"
#include "refhost/fail_internal.h"
#include "refhost/fd_internal.h"

namespace refhost {
namespace {

constexpr mode_t kLogFileMode = 0640;

// A place for lines that is not standard error: a sink, or a file.
struct Target {
  Fd file;
  LogSink sink;
};

struct Settings {
  std::atomic<LogLevel> level{LogLevel::Info};
  std::mutex mutex;
  std::shared_ptr<const Target> target;  // guarded by mutex; null for standard error
};

// Never destroyed: static destructors of other modules may still log.
Settings& settings() {
  static Settings* const instance = std::make_unique<Settings>().release();
  return *instance;
}

std::shared_ptr<const Target> current_target() {
  const std::lock_guard<std::mutex> lock(settings().mutex);
  return settings().target;
}

void use_target(std::shared_ptr<const Target> target) {
  const std::lock_guard<std::mutex> lock(settings().mutex);
  settings().target.swap(target);
}

const char* level_name(LogLevel level) {
  static constexpr std::array<const char*, 4> names = {"ERROR", "WARNING", "INFO", "TRACE"};
  return names.at(static_cast<std::size_t>(level));
}

using Prefix = std::array<char, 192>;

// "TIME LEVEL thread=N status=N ", the part of a line that the message has no influence on.
std::string_view format_prefix(Prefix& buffer, LogLevel level, cr_status_t status) {
  timespec now{};
  clock_gettime(CLOCK_REALTIME, &now);
  tm utc{};
  gmtime_r(&now.tv_sec, &utc);
  std::array<char, 16> code = {'-'};
  if (status != CR_STATUS_NONE) std::snprintf(code.data(), code.size(), "%d", status);
  const int length = std::snprintf(
      buffer.data(), buffer.size(), "%04d-%02d-%02dT%02d:%02d:%02d.%06ldZ %s thread=%ld status=%s ",
      utc.tm_year + 1900, utc.tm_mon + 1, utc.tm_mday, utc.tm_hour, utc.tm_min, utc.tm_sec,
      now.tv_nsec / 1000, level_name(level), syscall(SYS_gettid), code.data());
  return {buffer.data(), static_cast<std::size_t>(length)};
}

void append_escaped(std::string& line, std::string_view message) {
  static constexpr char digits[] = "0123456789ABCDEF";
  for (const char c : message) {
    const auto byte = static_cast<unsigned char>(c);
    if (c == '\\') {
      line += "\\\\";
    } else if (byte < 0x20 || byte == 0x7f) {
      line.append("\\x").append({digits[byte >> 4], digits[byte & 0xf]});
    } else {
      line += c;
    }
  }
}

// One write(), so that lines of several threads and processes do not mix. What cannot be written is
// given up: there is no place left to report it.
void write_once(int descriptor, std::string_view line) {
  while (write(descriptor, line.data(), line.size()) < 0 && errno == EINTR) {
  }
}

void write_line(int descriptor, const LogLine& line) {
  std::string_view message = line.message;
  if (!message.empty() && message.back() == '\n') message.remove_suffix(1);
  Prefix prefix{};
  std::string text(format_prefix(prefix, line.level, line.status));
  append_escaped(text, message);
  text += '\n';
  write_once(descriptor, text);
}

// Without memory a line still tells when it was, how grave and with which status.
void write_lost_line(int descriptor, LogLevel level, cr_status_t status) noexcept {
  Prefix prefix{};
  const std::string_view text = format_prefix(prefix, level, status);
  std::array<char, 256> line{};
  const int length = std::snprintf(line.data(), line.size(), "%.*s(message lost)\n",
                                   static_cast<int>(text.size()), text.data());
  write_once(descriptor, {line.data(), static_cast<std::size_t>(length)});
}

std::string format_message(const char* format, va_list arguments) {
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  std::string message(length < 0 ? 0 : static_cast<std::size_t>(length), '\0');
  if (length < 0) {
    message = format;
  } else {
    std::vsnprintf(message.data(), message.size() + 1, format, again);
  }
  va_end(again);
  return message;
}

void report(LogLevel level, cr_status_t status, const char* format, va_list arguments) noexcept {
  if (level > log_level()) return;
  const ErrnoKeeper keeper;
  const std::shared_ptr<const Target> target = current_target();
  const int descriptor = target && target->file ? target->file.get() : STDERR_FILENO;
  try {
    const LogLine line{level, status, format_message(format, arguments)};
    if (target && target->sink) {
      target->sink(line);
    } else {
      write_line(descriptor, line);
    }
  } catch (...) {
    write_lost_line(descriptor, level, status);
  }
}

}  // namespace

void log_to_stderr() { use_target(nullptr); }

void log_to_sink(LogSink sink) {
  use_target(std::make_shared<Target>(Target{Fd(), std::move(sink)}));
}

cr_status_t log_to_file(const char* path) {
  if (path == nullptr) return fail_argument();
  Fd file(open(path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, kLogFileMode));
  if (!file) return fail_errno();
  use_target(std::make_shared<Target>(Target{std::move(file), nullptr}));
  return CR_STATUS_OK;
}

void set_log_level(LogLevel level) { settings().level = level; }

LogLevel log_level() { return settings().level; }

}  // namespace refhost

void ErrorA(cr_status_t status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  refhost::report(refhost::LogLevel::Error, status, format, arguments);
  va_end(arguments);
}

void WarningA(cr_status_t status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  refhost::report(refhost::LogLevel::Warning, status, format, arguments);
  va_end(arguments);
}

void InfoA(cr_status_t status, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  refhost::report(refhost::LogLevel::Info, status, format, arguments);
  va_end(arguments);
}

bool TraceOn() { return refhost::log_level() == refhost::LogLevel::Trace; }

void __Trace(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  refhost::report(refhost::LogLevel::Trace, CR_STATUS_NONE, format, arguments);
  va_end(arguments);
}
