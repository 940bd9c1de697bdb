#include "cli/damaged_rows.h"

#include <sqlite3.h>

#include "cli/batch_errors.h"
#include "cli/sqlite_reader.h"
#include "cli/stored_row.h"
#include "podb/sqlite_podb.h"

namespace cli {

DamagedRows find_damaged_rows(const std::string& directory) {
  Connection connection;
  DamagedRows rows;
  const auto examine = [&rows](const Statement& statement) {
    const RawRow row = stored_row(statement);
    if (row_faults(row).empty()) return;
    if (has_usable_name(row)) {
      rows.named.insert(row.basename.bytes);
    } else {
      rows.nameless.push_back(row.basename.bytes);
    }
  };
  int code = open_table(directory + "/" + SQLitePODB::dbfilename(), "po", &connection);
  if (code == SQLITE_ROW) code = walk_table(connection, "po", kRowColumns, examine, [] {});
  if (code == SQLITE_DONE) return rows;
  throw DirectoryError{status_of_sqlite(code), "its database cannot be read"};
}

cr_status_t read_row(const std::string& database, std::int64_t rowid, RawRow* row) {
  Connection connection;
  int code = open_table(database, "po", &connection);
  if (code == SQLITE_ROW) {
    Statement found(connection,
                    std::string("SELECT rowid, ") + kRowColumns + " FROM po WHERE rowid = ?");
    found.bind(1, rowid);
    code = found.step();
    if (code == SQLITE_ROW) *row = stored_row(found);
  }
  if (code == SQLITE_DONE) return CR_STATUS_NOT_FOUND;
  return code == SQLITE_ROW ? CR_STATUS_OK : status_of_sqlite(code);
}

}  // namespace cli
