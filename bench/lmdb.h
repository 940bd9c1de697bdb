// The same rows in LMDB: how fast a store without SQL would be.
#pragma once

#include <lmdb.h>

#include <string>

#include "bench/databases.h"

namespace bench {

// Two trees, as the table and its index: name to row, and POID to name.
class Lmdb {
 public:
  Lmdb();
  Lmdb(const Lmdb&) = delete;
  Lmdb& operator=(const Lmdb&) = delete;
  ~Lmdb();

  // In one transaction.
  void put(const std::vector<Row>& rows);
  // In one transaction each.
  void get(const std::string& basename, RowCheck& check);

 private:
  MDB_txn* begin(unsigned int flags);

  ScratchDir scratch_;
  MDB_env* environment_ = nullptr;
  MDB_dbi rows_ = 0;
  MDB_dbi names_ = 0;
};

}  // namespace bench
