#include <sqlite3.h>

#include <iostream>

#include "cli/run.h"

int main(int argc, char** argv) {
  // Counting its memory would make all threads of SQLite take turns for every allocation.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  return cli::run(argc, argv, std::cout, std::cerr);
}
