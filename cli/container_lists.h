// The lists of containers ("ul.db") that belong to the rows of a catalog directory.
#pragma once

#include <memory>
#include <string>

#include "cli/content_hash.h"

namespace cli {

// One transaction on a directory's lists, begun with the first change. It lies inside the
// transaction of the rows: begun after it, committed before it. Destroyed uncommitted, it rolls
// back. Operations throw ListsLost (cli/batch_errors.h).
class ContainerLists {
 public:
  explicit ContainerLists(std::string directory);
  ContainerLists(const ContainerLists&) = delete;
  ContainerLists& operator=(const ContainerLists&) = delete;
  ~ContainerLists();

  void put(const Content& content);
  void remove(const std::string& poid);
  void commit();

 private:
  class Database;

  Database& begun();

  const std::string directory_;
  std::unique_ptr<Database> db_;  // from the first change to the commit
};

}  // namespace cli
