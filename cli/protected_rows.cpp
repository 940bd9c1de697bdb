#include "cli/protected_rows.h"

#include <sys/stat.h>

#include "cli/protection.h"
#include "cli/row_faults.h"
#include "cli/sqlite_reader.h"
#include "cli/stored_row.h"
#include "host/files.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// Empty when there is none.
std::string database_of_entries(const std::string& database) {
  if (getbasename(database) != SQLiteULDB::dbfilename()) return database;
  const std::string beside = getdirname(database) + "/" + SQLitePODB::dbfilename();
  struct stat found = {};
  return lstat(beside.c_str(), &found) == 0 ? beside : "";
}

}  // namespace

ProtectedRows find_protected_rows(const std::string& database) {
  ProtectedRows rows;
  const std::string entries = database_of_entries(database);
  if (entries.empty()) return rows;
  Connection connection;
  const int opened = connection.open(entries);
  const int table = opened == SQLITE_OK ? find_table(connection, "po") : opened;
  if (table != SQLITE_ROW && table != SQLITE_DONE) rows.status = status_of_sqlite(table);
  if (table != SQLITE_ROW) return rows;
  const ComplianceClock clock;
  const auto examine = [&](const Statement& statement) {
    const RawRow row = stored_row(statement);
    if (!row_faults(row).empty()) {
      ++rows.damaged;
    } else if (protected_entry(FilePO(row.content.bytes).record(), clock)) {
      ++rows.guarded;
    }
  };
  const int walked = walk_table(connection, "po", kRowColumns, examine, [] {});
  if (walked != SQLITE_DONE) rows.status = status_of_sqlite(walked);
  return rows;
}

}  // namespace cli
