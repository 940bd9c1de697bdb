#include <malloc.h>
#include <sqlite3.h>

#include <iostream>

#include "cli/run.h"

int main(int argc, char** argv) {
  // Counting its memory would make all threads of SQLite take turns for every allocation.
  sqlite3_config(SQLITE_CONFIG_MEMSTATUS, 0);
  // Memory of closed databases is what the next ones need: given back, every thread would wait.
  mallopt(M_TRIM_THRESHOLD, 16 << 20);
  return cli::run(argc, argv, std::cout, std::cerr);
}
