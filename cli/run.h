// The command line: what `pocatalog` understands.
#pragma once

#include <iosfwd>

namespace cli {

// Runs the subcommand that the arguments name and returns the exit status (ExitStatus). Never
// throws.
int run(int argc, const char* const* argv, std::ostream& out, std::ostream& err);

}  // namespace cli
