// Reading of SQLite databases that may be damaged, beside the library's own connections.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <memory>
#include <string>

namespace cli {

// A connection to an existing database file, used by one thread. What a crash left half written is
// rolled back by SQLite, as for any reader; nothing else is written.
class Connection {
 public:
  // An SQLite result code.
  int open(const std::string& file);

  sqlite3* handle() const { return db_.get(); }
  std::string message() const { return sqlite3_errmsg(db_.get()); }

 private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Close> db_;
};

// One statement on a connection that outlives it. Holds a read lock from the first step to the
// reset.
class Statement {
 public:
  Statement(const Connection& connection, const std::string& sql);

  // SQLITE_ROW, SQLITE_DONE or the code of a failure, that of the compilation included.
  int step();
  void rewind(std::int64_t parameter);

  int type(int column) const { return sqlite3_column_type(statement_.get(), column); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  // The bytes as they are stored, NULs included. Asked for after `type`, which it may change.
  std::string bytes(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  int compiled_ = SQLITE_OK;
};

}  // namespace cli
