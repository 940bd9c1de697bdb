#include "cli/verify_database.h"

#include <string>
#include <utility>
#include <vector>

#include "cli/list_faults.h"
#include "cli/row_faults.h"
#include "cli/stored_row.h"
#include "host/files.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

constexpr const char* kVersion = "1";

Schema schema_of_entries() {
  const std::string collation = OSIsCaseSensitive() ? "" : "COLLATE NOCASE";
  return {{"table po",
           {"po", "CREATE TABLE po (    basename TEXT " + collation +
                      " PRIMARY KEY,    poid TEXT,    content TEXT,    crc INT)"}},
          {"index sqlite_autoindex_po_1", {"po", ""}},
          {"index po_poid", {"po", "CREATE INDEX po_poid ON po(poid)"}},
          {"table registry",
           {"registry", "CREATE TABLE registry (    name TEXT PRIMARY KEY,    value TEXT)"}},
          {"index sqlite_autoindex_registry_1", {"registry", ""}}};
}

Schema schema_of_lists() {
  return {{"table utable",
           {"utable", "CREATE TABLE utable (    poid TEXT PRIMARY KEY,    udcids BLOB)"}},
          {"index sqlite_autoindex_utable_1", {"utable", ""}}};
}

void check_version(DatabaseCheck* check) {
  std::vector<std::string> versions;
  const bool ran = check->query("SELECT value FROM registry WHERE name = 'db_version'",
                                [&versions](const Statement& row) {
                                  const bool text = row.type(0) == SQLITE_TEXT;
                                  versions.push_back(text ? row.bytes(0) : "not a text");
                                });
  if (!ran) return;
  if (versions.empty()) {
    check->add("db_version is missing: a crash came before it; an ingest mends that");
  } else if (versions.front() != kVersion) {
    check->add("db_version is " + versions.front() + ", not " + kVersion);
  }
}

std::vector<std::string> entry_faults(const Statement& statement, Findings* findings) {
  const RawRow row = stored_row(statement);
  std::vector<std::string> faults = row_faults(row);
  if (faults.empty()) findings->sound_record(row.content.bytes);
  return faults;
}

std::vector<std::string> faults_of_list(const Statement& row) {
  const int poid_type = row.type(1);
  const int list_type = row.type(2);
  return list_faults({poid_type, row.bytes(1)}, list_type, row.view(2));
}

std::string first_column(const Statement& row) { return row.bytes(1); }

OpenDatabase open_database(const std::string& file, const Schema& schema, const std::string& table,
                           Look* look) {
  if (is_there(file)) look->count_database();
  FileState state = examine_file(file, look);
  if (state != FileState::to_examine) return {state, nullptr};
  auto check = std::make_unique<DatabaseCheck>(file, look);
  if (!check->open()) return {FileState::unusable, nullptr};
  // Opening rolls back what a crash left half written, which may be all of it.
  state = examine_file(file, look);
  if (state != FileState::to_examine) return {state, nullptr};
  if (!check->check_schema(schema, table)) return {FileState::unusable, nullptr};
  return {state, std::move(check)};
}

}  // namespace

OpenDatabase open_entries(const CatalogPath& directory, Look* look) {
  const std::string file = directory.child(SQLitePODB::dbfilename()).full();
  OpenDatabase database = open_database(file, schema_of_entries(), "po", look);
  if (database.check) check_version(database.check.get());
  return database;
}

OpenDatabase open_lists(const CatalogPath& directory, Look* look) {
  const std::string file = directory.child(SQLiteULDB::dbfilename()).full();
  return open_database(file, schema_of_lists(), "utable", look);
}

bool verify_entries(const OpenDatabase& database, Findings* findings) {
  if (!database.check) return database.state == FileState::nothing;
  return database.check->check_rows(
      "po", kRowColumns, first_column,
      [findings](const Statement& row) { return entry_faults(row, findings); }, findings);
}

bool verify_lists(const OpenDatabase& database, Findings* findings) {
  if (!database.check) return database.state == FileState::nothing;
  return database.check->check_rows("utable", "poid, udcids", first_column, faults_of_list,
                                    findings);
}

}  // namespace cli
