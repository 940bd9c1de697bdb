// Names of the server's modes.
#include "libcrsrv/common.h"

namespace {

struct Mode {
  std::int32_t value;
  const char* log_text;
  const char* status_text;
};

constexpr Mode kUnknown = {0, "unknown", "unknown"};

// The two texts of a mode differ in more than case here and there, intended.
constexpr Mode kModes[] = {
    {0x1, "normal", "NORMAL"},
    {0x2, "maintenance", "MAINTENANCE"},
    {0x4, "suspended", "SUSPENDED"},
    {0x8, "self suspended", "SUSPEND_SELF"},
    {0x10, "stopped", "SHUTDOWN"},
    {0x20, "hold", "HOLD"},
    {0x40, "holdforward", "HOLDFORWARD"},
    {0x400, "configuration reload", "CONF_RELOAD"},
    {0x800, "task cleanup", "REAP_CHILDS"},
    {0x1000, "global cache merge", "CACHE_MERGE"},
    {0x4000, "global cache dump", "CACHE_DUMP"},
    {0x100000, "canceled", "CANCEL"},
    {0x200000, "protocol error", "PROTOFAIL"},
    {0x400000, "abort handler triggered", "ABORT"},
    {0x800000, "failed", "FAIL"},
    {0x1000000, "fatal signal intercepted", "SIGFATAL"},
    {0x2000000, "unknown fatal error", "FATAL"},
};

const Mode& found(std::int32_t value) {
  for (const Mode& mode : kModes) {
    if (mode.value == value) return mode;
  }
  return kUnknown;
}

}  // namespace

const char* SDModeToString(std::int32_t mode) { return found(mode).log_text; }

const char* SDModeToStatString(std::int32_t mode) { return found(mode).status_text; }
