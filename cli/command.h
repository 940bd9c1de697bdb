// What every subcommand shares: how it reports and how it ends.
#pragma once

#include <iosfwd>
#include <string>

#include "host/status.h"

namespace cli {

// Exit statuses of the command.
enum ExitStatus : int {
  kDone = 0,
  kFailed = 1,
  kUsage = 2,
  kIncomplete = 3,    // some entries were not done
  kInconsistent = 4,  // the catalog contradicts itself
  kLockInForce = 5,   // a retention lock would have been shortened
};

// Where a subcommand prints. With `json` every printed line of `out` is one JSON object.
struct Console {
  std::ostream& out;
  std::ostream& err;
  bool json = false;
  bool progress = false;  // `err` is a terminal
};

// Tells of a problem: prints "pocatalog: PATH: TEXT (status N: its text; cause)" to `err`, the path
// made printable and the cause as cli/cause.h knows it; with `json` also an object to `out`, in
// which the text is "problem".
void report(const Console& console, const std::string& path, cr_status_t status,
            const std::string& text);

// `name` as it may reach a terminal: control bytes, backslashes and bytes that are no UTF-8 are
// escaped as \xNN, so that different names never look the same.
std::string printable(const std::string& name);

}  // namespace cli
