// A catalog directory with both of its databases, and the operations that are run on it while
// something is in their way.
#pragma once

#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "podb/podb_pool.h"
#include "uldb/sqlite_uldb.h"

// The directory root/5/c/p.
struct World {
  explicit World(const std::string& catalog_root);

  PODB& po() { return *pool.get_podb(dir); }
  // Ends what an operation left open, as callers do after a failure.
  cr_status_t roll_back();
  // Closes everything, for an object that does not work on by itself.
  void close();

  const std::string root;
  const std::string dir = root + "/5/c/p";
  PODBPool pool{1};
  SQLiteULDB ul{dir, 0};
};

struct Operation {
  const char* name;
  int rows;  // of a transaction; 1: none, a statement for itself
  std::function<cr_status_t(World& world, int rows)> run;
  void (*prepare)(World& world, int rows);
  std::set<cr_status_t> also = {};  // what it answers besides
};

// How a list of tests shows it.
inline void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

// Every operation on its own and as a large transaction; POCATALOG_SOAK in the environment
// multiplies the rows.
std::vector<Operation> operations();
Operation operation_named(const std::string& name);

// Runs it; what the host and the library may throw is what memory running out looks like.
cr_status_t run_caught(const Operation& operation, World& world);
