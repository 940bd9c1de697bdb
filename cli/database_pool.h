// The databases that the threads of a run work on.
#pragma once

#include <cstddef>
#include <memory>
#include <mutex>
#include <string>

#include "podb/podb_pool.h"
#include "podb/sqlite_podb.h"

namespace cli {

// A directory's database on loan from a pool; closed when the loan ends. One at a time for each
// directory.
class LentDatabase {
 public:
  LentDatabase(std::shared_ptr<PODBPool> pool, std::string directory);
  LentDatabase(const LentDatabase&) = delete;
  LentDatabase& operator=(const LentDatabase&) = delete;
  ~LentDatabase();

  SQLitePODB& operator*() const { return *db_; }

 private:
  const std::shared_ptr<PODBPool> pool_;
  const std::string directory_;
  const std::shared_ptr<SQLitePODB> db_;
};

// Lends the databases of one catalog, to any number of threads. A pool remembers every directory
// for minutes, so a run through a large catalog takes a fresh one every now and then; the old one
// goes with its last loan.
class DatabasePool {
 public:
  explicit DatabasePool(std::string root) : root_(std::move(root)) {}

  LentDatabase lend(const std::string& directory);

 private:
  const std::string root_;

  std::mutex mutex_;  // guards what follows
  std::shared_ptr<PODBPool> pool_;
  std::size_t lent_ = 0;  // by the present pool
};

}  // namespace cli
