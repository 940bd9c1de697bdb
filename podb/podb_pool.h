// The pool of the databases of a catalog: one per directory, shared by the server's threads.
#pragma once

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "base/export.h"
#include "podb/podb.h"

// Lends the database of a catalog directory: everybody who asks for a directory gets the same
// object. The pool owns its databases together with the holders of handles, and owns its factory.
// The capacity is a soft limit: a full pool first lets go of the databases that nobody holds, that
// are in no transaction and that have been idle for more than 300 seconds, and grows when there are
// none.
//
// Threads: after init, the operations may be called from any thread; they are serialised, creating
// and closing databases included. get_item_count and print are for diagnostics: they read without
// the lock, so call them when no other thread may be adding a database. What a handle is used for
// is not guarded by the pool: the threads that share a database take turns, and close_podb,
// commit_all and close_all work on databases that others may hold, so they take their turn like
// everybody.
//
// No operation of the pool, and no close_db, may be called from inside a visitor or a row hook: the
// connection's mutex is held there, and a thread that holds the pool's lock may be waiting for it.
//
// A handle outlives the pool. A factory may have answered null: such an entry counts in
// get_item_count, and otherwise has nothing to commit, close or reclaim.
class POCATALOG_API PODBPool {
 public:
  explicit PODBPool(unsigned long limit);
  PODBPool(const PODBPool&) = delete;
  PODBPool& operator=(const PODBPool&) = delete;
  ~PODBPool();

  // Takes ownership of the factory; the one held before is deleted, unless it is the same. Done
  // before the pool is shared.
  void init(const std::string& catalog_root, PODBFactory* owned);

  // The database of a directory, made on first use; making it opens nothing. Where file names are
  // case-insensitive, spellings that differ in case share a database, which bears the first one.
  // Throws std::logic_error when a database is to be made before init, and whatever the factory
  // throws: nothing is added then, and the pool stays usable.
  std::shared_ptr<PODB> get_podb(const std::string& dir);

  // Closes the database of a directory, which stays in the pool and opens again when it is used. 0
  // when there is none, otherwise what its close_db(flags) returns. What was not committed is lost:
  // the transaction counts as active, and cannot be committed, until somebody rolls it back.
  cr_status_t close_podb(const std::string& dir, unsigned int flags);

  // Commits every open transaction, in the order of the directories. Stops at the first failure and
  // returns its status; the transactions after it stay open.
  cr_status_t commit_all();

  // Closes every database as close_podb, in the order of the directories. Stops at the first
  // failure and returns its status; the databases after it stay open.
  cr_status_t close_all();

  // Whether the entry of that full path exists, as PODB::exists tells it of the directory's
  // database, which is in the pool afterwards.
  bool exists_po(const std::string& path);

  // Lets go of every idle database. The caller holds the pool's lock: that is, get_podb, or one who
  // shares the pool with nobody.
  void reclaim();

  std::uint64_t get_item_count() const;

  // One line: "(directory,holders) " for each database; the pool is one of the holders.
  void print(std::ostream& out);

 private:
  const std::uint64_t capacity;

  // Set by init.
  std::string root;
  std::unique_ptr<PODBFactory> factory;

  std::mutex mutex;  // guards databases
  std::map<std::string, std::shared_ptr<PODB>> databases;
};
