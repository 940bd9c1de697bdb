// A catalog directory with both of its databases, and the operations that are run on it under
// faults.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "po/dir_po.h"
#include "podb/podb_pool.h"
#include "podb/sqlite_podb.h"
#include "tests/support/intact.h"
#include "uldb/sqlite_uldb.h"

// The directory root/5/c/p.
struct World {
  explicit World(const std::string& catalog_root);

  // Ends what an operation left open, as callers do after a failure; the first status that is not
  // 0.
  cr_status_t roll_back();
  // Closes everything, for an object that does not work on by itself.
  void close();

  const std::string root;
  const std::string dir = root + "/5/c/p";
  SQLitePODB po{root, dir};
  SQLiteULDB ul{dir, 0};
  PODBPool pool{1};
};

// For an operation that answers 0 and did not do what it says.
inline constexpr cr_status_t kUntrue = -77;

struct Operation {
  const char* name;
  int rows;  // of a transaction; 1: none, a statement for itself
  cr_status_t (*run)(World& world, int rows);
  void (*prepare)(World& world, int rows);
  // What it has done by the time of a failure stays: the table, whole rows, in order.
  bool by_lines = false;
  // What it answers besides: anywhere, and where memory ran out.
  cr_status_t also = CR_STATUS_OK;
  cr_status_t also_without_memory = CR_STATUS_OK;
};

// How a list of tests shows it.
inline void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

// How many rows the databases hold at first, and a large transaction changes; POCATALOG_SOAK in the
// environment multiplies it.
int stored_rows();

// Every operation on its own and as a large transaction.
std::vector<Operation> operations();

// Runs it; what the host and the library may throw is what memory running out looks like.
cr_status_t run_caught(const Operation& operation, World& world);

using Rows = std::vector<std::string>;

// What the directory holds, sorted: the rows of both databases and its record. What is wrong with
// the databases goes to `faults`.
Rows rows_of(const std::string& dir, intact::Faults& faults);

// Whether a failed operation may have left these: all or nothing; by lines, a first part.
bool may_leave(const Operation& operation, const Rows& rows, const Rows& before, const Rows& after);
