#include "bench/databases.h"

#include <stdlib.h>

#include <cstring>
#include <filesystem>

#include "base/adler32.h"
#include "bench/measure.h"

namespace bench {

namespace {

void check(sqlite3* db, int rc, const char* what) {
  if (rc != SQLITE_OK && rc != SQLITE_ROW && rc != SQLITE_DONE) {
    must(static_cast<unsigned long>(rc), (std::string(what) + ": " + sqlite3_errmsg(db)).c_str());
  }
}

}  // namespace

ScratchDir::ScratchDir()
    : path_(std::filesystem::temp_directory_path() / "pocatalog-bench-XXXXXX") {
  must(mkdtemp(path_.data()) == nullptr, "mkdtemp");
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

BareDatabase::BareDatabase(const std::string& file) {
  check(db_, sqlite3_open(file.c_str(), &db_), file.c_str());
  sqlite3_db_config(db_, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(db_, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  sqlite3_extended_result_codes(db_, 1);
  sqlite3_busy_timeout(db_, 10000);
  exec("PRAGMA cell_size_check = ON; PRAGMA mmap_size = 0; PRAGMA synchronous = EXTRA");
}

BareDatabase::~BareDatabase() { sqlite3_close(db_); }

void BareDatabase::exec(const std::string& sql, sqlite3_callback row, void* context) {
  check(db_, sqlite3_exec(db_, sql.c_str(), row, context, nullptr), sql.c_str());
}

void BareDatabase::exec_all(const std::vector<std::string>& statements) {
  for (const std::string& sql : statements) exec(sql);
}

void create_tables(BareDatabase& db) {
  db.exec_all({"BEGIN IMMEDIATE TRANSACTION;",
               "CREATE TABLE IF NOT EXISTS po (    basename TEXT  PRIMARY KEY,    poid TEXT,    "
               "content TEXT,    crc INT)",
               "CREATE INDEX IF NOT EXISTS po_poid ON po(poid)",
               "CREATE TABLE IF NOT EXISTS registry (    name TEXT PRIMARY KEY,    value TEXT)",
               "COMMIT TRANSACTION;",
               "INSERT OR REPLACE INTO registry VALUES ('db_version', '1')"});
}

BareStatement::BareStatement(BareDatabase& database, const char* sql) {
  check(database.handle(), sqlite3_prepare_v2(database.handle(), sql, -1, &statement_, nullptr),
        sql);
}

BareStatement::~BareStatement() { sqlite3_finalize(statement_); }

void BareStatement::bind(int parameter, const std::string& text) {
  sqlite3_bind_text(statement_, parameter, text.data(), static_cast<int>(text.size()),
                    SQLITE_STATIC);
}

void BareStatement::bind(int parameter, const void* bytes, std::size_t size) {
  sqlite3_bind_blob(statement_, parameter, bytes, static_cast<int>(size), SQLITE_STATIC);
}

void BareStatement::bind(int parameter, std::uint32_t number) {
  sqlite3_bind_int64(statement_, parameter, number);
}

bool BareStatement::step() {
  const int rc = sqlite3_step(statement_);
  check(sqlite3_db_handle(statement_), rc, "step");
  return rc == SQLITE_ROW;
}

void BareStatement::reset() { sqlite3_reset(statement_); }

const char* BareStatement::text(int column) {
  return reinterpret_cast<const char*>(sqlite3_column_text(statement_, column));
}

const void* BareStatement::blob(int column) { return sqlite3_column_blob(statement_, column); }

std::size_t BareStatement::size(int column) {
  return static_cast<std::size_t>(sqlite3_column_bytes(statement_, column));
}

Directory::Directory() { must(podb.check_db_existence(true), "create"); }

Filled::Filled(std::vector<Row> stored)
    : rows(std::move(stored)),
      order(shuffled(rows.size())),
      bare(directory.podb.get_dbfile_path()) {
  bare.exec("BEGIN IMMEDIATE TRANSACTION;");
  for (const Row& row : rows) bare.exec(insert_text(row));
  bare.exec("COMMIT TRANSACTION;");
}

Entries make_entries(const std::vector<Row>& rows, const Directory& directory) {
  Entries entries;
  for (const Row& row : rows) {
    entries.push_back(make_entry(row, directory.root, directory.path));
  }
  return entries;
}

void put_all(SQLitePODB& podb, const Entries& entries, std::size_t rows_each) {
  for (std::size_t next = 0; next < entries.size();) {
    must(podb.begin_transaction(), "begin");
    for (std::size_t n = 0; n < rows_each && next < entries.size(); ++n, ++next) {
      must(podb.put(entries[next].get()), "put");
    }
    must(podb.commit_transaction(), "commit");
  }
}

void ask_host_to_store(FilePO& entry) {
  _po_t* const record = entry.record();
  keep(std::strlen(POGetBasename(record)) + std::strlen(POGetHashRef(record)));
  must(POSetDirname(record, "") + POSetBasename(record, "") + POSetDsid(record, 0) != 0, "strip");
  keep(std::strlen(HostText(POToStringMalloced(record)).get()));
}

std::string insert_text(const Row& row) {
  return "INSERT OR REPLACE INTO po VALUES ('" + row.basename + "', '" + row.poid + "', '" +
         row.content + "', " + std::to_string(checksum(row)) + ")";
}

std::string where_name_is(const Row& row) { return " WHERE basename = '" + row.basename + "'"; }

int RowCheck::take(void* context, int columns, char** values, char**) {
  auto& check = *static_cast<RowCheck*>(context);
  if (columns != 4 || values[0] == nullptr || values[1] == nullptr || values[2] == nullptr ||
      values[3] == nullptr) {
    return 1;
  }
  const std::uint32_t crc = SQLitePODB::calculate_crc(values[0], values[1], values[2]);
  if (crc != std::strtoull(values[3], nullptr, 10)) return 1;
  PORecord own(check.into == nullptr ? POCreate() : nullptr);
  _po_t* const record = check.into == nullptr ? own.get() : check.into;
  if (POSetFromString(record, values[2]) != 0) return 1;
  const char* const poid = POGetHashRef(record);
  if (*poid != 0 && !POIDStringValidate(poid)) return 1;
  if (POSetDsid(record, 1) != 0) return 1;
  const std::string inner = std::string("/client/policy/") + values[0];
  if (POSetPath(record, inner.c_str()) != 0) return 1;
  if (check.keep != nullptr) check.keep->push_back(std::move(own));
  ++check.rows;
  return 0;
}

int CountCheck::take(void* context, int, char** values, char**) {
  static_cast<CountCheck*>(context)->value = std::strtoull(values[0], nullptr, 10);
  return 0;
}

}  // namespace bench
