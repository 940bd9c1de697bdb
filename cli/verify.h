// `pocatalog verify`: finds what is damaged.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct VerifyOptions {
  std::string root;
};

// Checks every database, every row and every directory's record below the root and goes on after
// damage. Changes nothing, except that SQLite rolls back what a crash left half written.
int verify(const Console& console, const VerifyOptions& options);

}  // namespace cli
