// A catalog directory with both of its databases, and the operations that are run on it while
// something is in their way.
#pragma once

#include <functional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "podb/podb_pool.h"
#include "podb/sqlite_podb.h"
#include "refhost/control.h"
#include "uldb/sqlite_uldb.h"

// The directory root/5/c/p.
struct World {
  explicit World(const std::string& catalog_root) : root(catalog_root) {
    refhost::set_clock(0);
    pool.init(root, new SQLitePODBFactory);
    ul.db_close();  // opened under faults as well
  }

  PODB& po() { return *pool.get_podb(dir); }
  // Ends what an operation left open, as callers do after a failure.
  cr_status_t roll_back() {
    if (ul.is_transaction_active()) ul.rollback_transaction();
    return po().is_transaction_active(nullptr) ? po().rollback_transaction() : CR_STATUS_OK;
  }
  // For an object that does not work on by itself.
  void close() {
    ul.db_close();
    pool.close_all();
  }

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
