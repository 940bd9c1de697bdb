// Daemons that are started from a command line.
#pragma once

#include <functional>

#include "cli/command.h"

namespace cli {

// What becomes a daemon and runs until that ends; calls `started` once when nothing can keep it
// from its work any more.
using Daemon = std::function<int(const Console& console, const std::function<void()>& started)>;

// Runs `daemon` in a child process, for processes that become daemons end before they know how that
// went. The process that called gets kDone once the daemon has started, otherwise its exit status;
// what it printed until then is printed here. In the daemon returns what it returns.
int start_detached(const Console& console, const Daemon& daemon);

}  // namespace cli
