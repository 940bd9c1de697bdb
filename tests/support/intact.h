// What is wrong with the databases of a catalog directory, seen past the library's connections.
#pragma once

#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "host/files.h"
#include "podb/sqlite_podb.h"
#include "tests/support/records.h"
#include "uldb/sqlite_uldb.h"

namespace intact {

using Faults = std::vector<std::string>;
using Row = std::function<void(sqlite3_stmt*)>;

inline std::string text(sqlite3_stmt* row, int column) {
  const void* found = sqlite3_column_blob(row, column);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(row, column));
  return found == nullptr ? "" : std::string(static_cast<const char*>(found), size);
}

// Hands every row to `take`; a statement that fails is a fault.
inline void each_row(sqlite3* db, const std::string& sql, Faults& faults, const Row& take) {
  sqlite3_stmt* statement = nullptr;
  int rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);
  while (rc == SQLITE_OK || rc == SQLITE_ROW) {
    rc = sqlite3_step(statement);
    if (rc == SQLITE_ROW) take(statement);
  }
  if (rc != SQLITE_DONE) faults.push_back(sql + ": " + sqlite3_errmsg(db));
  sqlite3_finalize(statement);
}

// The checksum fits, and the host reads the entry.
inline void check_entry(sqlite3_stmt* row, Faults& faults) {
  const std::string name = text(row, 0), poid = text(row, 1), content = text(row, 2);
  const auto stored = static_cast<std::uint32_t>(sqlite3_column_int64(row, 3));
  if (SQLitePODB::calculate_crc(name.c_str(), poid.c_str(), content.c_str()) != stored) {
    faults.push_back("checksum of " + name);
  }
  const RecordPtr record(POCreate());
  if (PO::setFromString(record.get(), content.c_str()) != 0) faults.push_back("content of " + name);
}

inline void check_list(sqlite3_stmt* row, Faults& faults) {
  std::string bytes = text(row, 1);
  auto* binary = reinterpret_cast<unsigned char*>(bytes.data());
  UDCIDRecord list;
  if (list.Deserialize(binary, static_cast<unsigned int>(bytes.size())) != CR_STATUS_OK) {
    faults.push_back("list of " + text(row, 0));
  }
}

inline bool has_content(const std::string& file) {
  struct stat info {};
  return wa_stat(file.c_str(), &info) == CR_STATUS_OK && info.st_size > 0;
}

inline void check_database(const std::string& file, const std::string& rows, Faults& faults,
                           const Row& check) {
  if (!has_content(file)) return;
  sqlite3* opened = nullptr;
  const int rc = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite3_close);
  if (rc != SQLITE_OK) return faults.push_back(file + ": " + sqlite3_errstr(rc));
  sqlite3_busy_timeout(opened, 10000);
  each_row(opened, "PRAGMA integrity_check", faults, [&](sqlite3_stmt* row) {
    if (text(row, 0) != "ok") faults.push_back(file + ": " + text(row, 0));
  });
  if (has_content(file)) each_row(opened, rows, faults, check);  // a creation may be rolled back
}

// SQLite's integrity check says ok, every row's checksum fits and its entry can be read, and every
// list of containers is whole. Missing and empty files hold nothing that could be wrong. Opening a
// database ends what a crash left unfinished, as for everybody who opens it.
inline Faults faults_of(const std::string& directory) {
  Faults faults;
  check_database(directory + "/" + SQLitePODB::dbfilename(),
                 "SELECT basename, poid, content, crc FROM po", faults,
                 [&](sqlite3_stmt* row) { check_entry(row, faults); });
  check_database(directory + "/" + SQLiteULDB::dbfilename(), "SELECT poid, udcids FROM utable",
                 faults, [&](sqlite3_stmt* row) { check_list(row, faults); });
  return faults;
}

}  // namespace intact
