// What `pocatalog verify` thinks of a directory.
#pragma once

#include <sstream>
#include <string>

#include "cli/verify_database.h"

// Whether it has something to say about the databases of ROOT/5/c/p.
inline bool verify_finds_faults(const std::string& root) {
  std::ostringstream out;
  const cli::Console console{out, out};
  cli::Findings findings(console);
  cli::Look look(false);
  const cli::CatalogPath directory{root, {"5", "c", "p"}};
  verify_entries(cli::open_entries(directory, &look), &findings);
  verify_lists(cli::open_lists(directory, &look), &findings);
  return !look.found_nothing() || findings.exit_status() != cli::kDone;
}
