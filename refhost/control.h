// What a program that runs on the reference host may set: one seam for each thing that it, or a
// test, wants to decide itself. Everything here may be called from any thread at any time, and
// everything starts in the state named "at start".
#pragma once

#include <functional>
#include <string>

#include "host/api.h"
#include "host/files.h"
#include "host/status.h"

namespace refhost {

// From the most to the least important. A line is written when it is at least as important as the
// level that is set.
enum class LogLevel : int { Error, Warning, Info, Trace };

// One line as it was reported, before anything is escaped.
struct LogLine {
  LogLevel level;
  cr_status_t status;  // CR_STATUS_NONE when none belongs to the line; always so for trace lines
  std::string message;
};

// Receives lines on the thread that reports them, several threads at once included. It may log
// itself, or move the lines elsewhere; what it throws is dropped.
using LogSink = std::function<void(const LogLine&)>;

// Where lines go; at start to standard error. A file is appended to and made when it is missing; 0,
// or the status of the failure, and then lines go where they went before.
//
// A line looks like
//   2026-03-04T05:06:07.000123Z ERROR thread=4711 status=2 can't open DirPO file /cat/1/a
// with UTC time, the kernel's thread id, and status=- where no status belongs to it. Control bytes
// and "\" of the message are written as \xHH and "\\", a final newline is left out: a line is one
// line, whatever the names in it are. Each is one write().
HOST_API void log_to_stderr();
HOST_API cr_status_t log_to_file(const char* path);

// Lines go to the sink alone. Another thread may still be inside the old sink when lines have been
// moved away from it, so a sink owns what it uses.
HOST_API void log_to_sink(LogSink sink);

// The least important level that is written; at start LogLevel::Info. TraceOn answers whether it is
// LogLevel::Trace.
HOST_API void set_log_level(LogLevel level);
HOST_API LogLevel log_level();

// The clock behind gethrtime, in nanoseconds; at start the system's monotonic clock. A clock that
// was set stands still until it is set again or advanced; advancing the real clock stops it first.
HOST_API void set_clock(hrtime_t nanoseconds);
HOST_API void advance_clock(hrtime_t nanoseconds);
HOST_API void use_real_clock();

// What ZelSleep does with its seconds; at start, and for an empty function, it sleeps.
HOST_API void set_sleep(std::function<void(unsigned int)> sleep);

// What OSIsCaseSensitive answers; at start true.
HOST_API void set_case_sensitive(bool sensitive);

}  // namespace refhost
