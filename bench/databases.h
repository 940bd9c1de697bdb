// Databases to measure on: the library's, and bare ones with the same settings.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "bench/rows.h"
#include "podb/sqlite_podb.h"

namespace bench {

// A fresh directory that goes with its object.
class ScratchDir {
 public:
  ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A bare connection with the settings of the library's; what fails ends the program.
class BareDatabase {
 public:
  explicit BareDatabase(const std::string& file);
  BareDatabase(const BareDatabase&) = delete;
  BareDatabase& operator=(const BareDatabase&) = delete;
  ~BareDatabase();

  void exec(const std::string& sql, sqlite3_callback row = nullptr, void* context = nullptr);
  void exec_all(const std::vector<std::string>& statements);
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// The tables of a new po.db, in the transactions of the library.
void create_tables(BareDatabase& db);

// A prepared statement of a bare connection.
class BareStatement {
 public:
  BareStatement(BareDatabase& database, const char* sql);
  BareStatement(const BareStatement&) = delete;
  BareStatement& operator=(const BareStatement&) = delete;
  ~BareStatement();

  void bind(int parameter, const std::string& text);
  void bind(int parameter, const void* bytes, std::size_t size);
  void bind(int parameter, std::uint32_t number);
  bool step();  // false after the last row
  void reset();
  const char* text(int column);
  const void* blob(int column);
  std::size_t size(int column);

 private:
  sqlite3_stmt* statement_ = nullptr;
};

// One catalog directory below a root of its own, with an empty database.
struct Directory {
  ScratchDir scratch;
  std::string root = scratch.path();
  std::string path = root + "/1/client/policy";
  SQLitePODB podb{root, path};

  Directory();
};

// A database that holds `rows`, to be read by the library and by a bare connection.
struct Filled {
  explicit Filled(std::vector<Row> stored);
  const std::vector<Row> rows;
  const std::vector<std::size_t> order;  // of the rows, as if random
  Directory directory;
  BareDatabase bare;
};

using Entries = std::vector<std::unique_ptr<FilePO>>;
Entries make_entries(const std::vector<Row>& rows, const Directory& directory);

// Stores the entries, `rows_each` in a transaction.
void put_all(SQLitePODB& podb, const Entries& entries, std::size_t rows_each);

// What storing an entry costs the host whoever stores it: its record is read, stripped and printed.
void ask_host_to_store(FilePO& entry);

// The statements of the store.
inline const std::string kSelect = "SELECT basename, poid, content, crc FROM po";
std::string insert_text(const Row& row);
std::string where_name_is(const Row& row);

// Checks a row as the store does: its columns, its checksum, and the record that the host makes.
struct RowCheck {
  _po_t* into = nullptr;                  // null: a record of its own for every row
  std::vector<PORecord>* keep = nullptr;  // where those go; null: nowhere
  std::size_t rows = 0;

  static int take(void* context, int columns, char** values, char** names);
};

// Takes the one number of a count.
struct CountCheck {
  std::size_t value = 0;
  static int take(void* context, int columns, char** values, char** names);
};

}  // namespace bench
