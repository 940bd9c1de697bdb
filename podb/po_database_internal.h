// The connection to "po.db": its schema, and the decoder of its rows that every query shares.
#pragma once

#include <cstdint>
#include <string>

#include "podb/sqlite_podb.h"
#include "sqlitedb/sqlite_wrapper.h"

// What a query hands to the connection for its rows. The type decides what `output` points to.
enum QueryType : std::uint32_t {
  QUERY_PO = 0,         // PO*: filled from the row
  QUERY_PO_LIST = 1,    // POQueue*: a new FilePO is appended
  QUERY_NAME_LIST = 2,  // std::vector<std::string>*
  QUERY_NAME_SET = 3,   // std::set<std::string>*
  QUERY_COUNT = 4,      // unsigned long*
  QUERY_STRING = 5,     // std::string*
  QUERY_PROCESS = 6,    // POProcessor*: visits a temporary FilePO
};

struct SQLitePODB::QueryContext {
  QueryContext(SQLitePODB* database, std::uint32_t query_type, void* results)
      : owner(database), type(query_type), output(results) {}

  SQLitePODB* owner;
  cr_status_t status = CR_STATUS_OK;  // of the last row
  std::int32_t rows = 0;              // delivered, counted before each is examined
  std::uint32_t type;
  bool skip_bad_rows = false;  // a row that fails its checks is left out and the query goes on
  const std::string* name = nullptr;  // the one that was asked for; null: any
  void* output;
  // Of the row at hand. Here, so that only the first row of many has to find memory for them.
  std::string path;
  std::string text;
};

class SQLitePODB::po_database : public sqlitedb::sqlite3_wrapper {
 public:
  // `catalog_root` is where the paths of entries start.
  po_database(const std::string& file, const std::string& catalog_root)
      : sqlite3_wrapper(file, kLongestValue), root(catalog_root) {}

  cr_status_t on_db_createtable() override;
  int on_db_callback(void* ctx, int ncols, char** values, char** names) override;

  cr_status_t create_tables();

  // 0, or -1 after a log line, when `crc_text` is not the checksum of the other three.
  static int check_crc(const char* basename, const char* poid, const char* content,
                       const char* crc_text);

  // 0, or -1 after a log line, when the row has another number of columns or a NULL.
  static int check_parameter(int ncols, const char* const* values, const char* const* names,
                             int expected);

 private:
  // Far above what a row's statement can hold.
  static constexpr int kLongestValue = 1 << 20;

  cr_status_t take_row(QueryContext& context, int ncols, char** values, char** names) const;
  static bool is_asked_for(const QueryContext& context, const char* name);
  cr_status_t take_po(QueryContext& context, char** values) const;
  cr_status_t fill(QueryContext& context, char** values, PO& po) const;

  const std::string root;
};
