// What is wrong with the databases of a catalog directory, seen past the library's connections.
#pragma once

#include <sqlite3.h>

#include <functional>

#include "podb/sqlite_podb.h"
#include "tests/support/records.h"
#include "uldb/sqlite_uldb.h"

namespace intact {

using Faults = std::vector<std::string>;
using Row = std::function<void(sqlite3_stmt*)>;

inline std::string text(sqlite3_stmt* row, int column) {
  const auto* const found = static_cast<const char*>(sqlite3_column_blob(row, column));
  return found == nullptr ? "" : std::string(found, found + sqlite3_column_bytes(row, column));
}

// Hands every row to `take`; a statement that fails is a fault.
inline void each_row(sqlite3* db, const std::string& sql, Faults& faults, const Row& take) {
  sqlite3_stmt* statement = nullptr;
  sqlite3_prepare_v2(db, sql.c_str(), -1, &statement, nullptr);  // a failure shows in the step
  int rc = sqlite3_step(statement);
  for (; rc == SQLITE_ROW; rc = sqlite3_step(statement)) take(statement);
  if (rc != SQLITE_DONE) faults.push_back(sql + ": " + sqlite3_errmsg(db));
  sqlite3_finalize(statement);
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

// SQLite's integrity check says ok, every row's checksum fits and the host reads its entry, and
// every list of containers is whole. Missing and empty files hold nothing that could be wrong.
// Opening a database ends what a crash left unfinished, as for everybody who opens it.
inline Faults faults_of(const std::string& directory) {
  Faults faults;
  const auto check_entry = [&faults](sqlite3_stmt* row) {
    const std::string name = text(row, 0), poid = text(row, 1), content = text(row, 2);
    const auto sum = SQLitePODB::calculate_crc(name.c_str(), poid.c_str(), content.c_str());
    const auto stored = static_cast<std::uint32_t>(sqlite3_column_int64(row, 3));
    if (stored != sum) faults.push_back("checksum of " + name);
    const bool taken = PO::setFromString(RecordPtr(POCreate()).get(), content.c_str()) == 0;
    if (!taken) faults.push_back("content of " + name);
  };
  const auto check_list = [&faults](sqlite3_stmt* row) {
    std::string bytes = text(row, 1);
    auto* const binary = reinterpret_cast<unsigned char*>(bytes.data());
    const auto status = UDCIDRecord().Deserialize(binary, static_cast<unsigned int>(bytes.size()));
    if (status != CR_STATUS_OK) faults.push_back("list of " + text(row, 0));
  };
  const std::string entries = "SELECT basename, poid, content, crc FROM po";
  check_database(directory + "/po.db", entries, faults, check_entry);
  check_database(directory + "/ul.db", "SELECT poid, udcids FROM utable", faults, check_list);
  return faults;
}

}  // namespace intact
