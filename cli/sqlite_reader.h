// Reading of SQLite databases that may be damaged, beside the library's own connections.
#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "host/status.h"

namespace cli {

// A connection to an existing database file, used by one thread. What a crash left half written is
// rolled back by SQLite, as for any reader; nothing else is written.
class Connection {
 public:
  // An SQLite result code.
  int open(const std::string& file);

  sqlite3* handle() const { return db_.get(); }

  // Whether the file is no longer there under its name. The journal beside it is then another's,
  // which must not be taken for this one's: that would undo the other's transaction. Asked before
  // each lock is waited for, not while it is.
  bool has_moved() const;
  std::string message() const { return sqlite3_errmsg(db_.get()); }

 private:
  struct Close {
    void operator()(sqlite3* db) const { sqlite3_close_v2(db); }
  };
  std::unique_ptr<sqlite3, Close> db_;
};

// Until it ends, what is read on a connection is of one state, under one lock: each statement, and
// the compilation of the first, would take and give back its own, a dozen system calls each time.
class ReadTransaction {
 public:
  explicit ReadTransaction(const Connection& connection);
  ReadTransaction(const ReadTransaction&) = delete;
  ReadTransaction& operator=(const ReadTransaction&) = delete;
  ~ReadTransaction();

  // SQLITE_OK when the lock is held, SQLITE_BUSY when the file has moved, or another failure's
  // code.
  int code() const { return code_; }

 private:
  const Connection& connection_;
  int code_;
};

// One statement on a connection that outlives it. Outside a transaction it holds a read lock from
// the first step to the reset.
class Statement {
 public:
  Statement(const Connection& connection, const std::string& sql);

  // Parameters count from 1. Texts are copied. Only before the first step or after a reset.
  void bind(int parameter, std::int64_t value);
  void bind(int parameter, const std::string& text);

  // SQLITE_ROW, SQLITE_DONE or the code of a failure, that of the compilation included. The first
  // step answers SQLITE_BUSY when the file has moved, unless a transaction holds the lock.
  int step();
  // Back to before the first step; outside a transaction, lets go of the lock.
  void reset();

  int type(int column) const { return sqlite3_column_type(statement_.get(), column); }
  std::int64_t integer(int column) const { return sqlite3_column_int64(statement_.get(), column); }
  // The bytes as they are stored, NULs included. Asked for after `type`, which it may change.
  std::string bytes(int column) const { return std::string(view(column)); }
  // The same without a copy: lives until the next step or reset.
  std::string_view view(int column) const;

 private:
  struct Finalize {
    void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
  };
  std::unique_ptr<sqlite3_stmt, Finalize> statement_;
  const Connection& connection_;
  int compiled_ = SQLITE_OK;
  bool running_ = false;  // a read lock is held
};

// Walks a table by rowid, page by page: `take` sees every row, rowid first and then `columns`,
// under a read lock. `page_done` runs without one. Returns SQLITE_DONE, or the code of a failure.
int walk_table(const Connection& connection, const std::string& table, const std::string& columns,
               const std::function<void(const Statement&)>& take,
               const std::function<void()>& page_done);

// Whether the database has a table of that name: SQLITE_ROW when it has, SQLITE_DONE when it has
// not, or the code of a failure.
int find_table(const Connection& connection, const std::string& table);

// Opens a database that may be missing, for the sake of one table: SQLITE_ROW when it has that,
// SQLITE_DONE when there is no file or no such table, or the code of a failure.
int open_table(const std::string& file, const std::string& table, Connection* connection);

// A table of a database that may be missing, open for several readers.
struct OpenTable {
  Connection connection;
  bool exists = false;

  // Null when there is no table.
  const Connection* rows() const { return exists ? &connection : nullptr; }

  // SQLITE_OK, whether there is such a table or not, or the code of a failure.
  int open(const std::string& file, const std::string& table);
};

// The status of a failure's code, never 0.
cr_status_t status_of_sqlite(int code);

}  // namespace cli
