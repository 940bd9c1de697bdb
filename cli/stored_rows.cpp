#include "cli/stored_rows.h"

#include <sqlite3.h>

#include <utility>

#include "cli/batch_errors.h"
#include "cli/sqlite_reader.h"
#include "cli/stored_row.h"
#include "podb/sqlite_podb.h"

namespace cli {

namespace {

constexpr std::size_t kMostRecords = 16384;

void sort_out(RawRow row, StoredRows* rows) {
  const bool sound = row_faults(row).empty();
  if (sound && rows->records.size() < kMostRecords) {
    rows->records.emplace(std::move(row.basename.bytes), std::move(row.content.bytes));
  } else if (!sound && has_usable_name(row)) {
    rows->damaged.insert(row.basename.bytes);
  } else if (!sound) {
    rows->nameless.push_back(row.basename.bytes);
  }
}

}  // namespace

StoredRows read_stored_rows(const OpenTable& entries) {
  StoredRows rows;
  if (!entries.exists) return rows;
  const int code = walk_table(
      entries.connection, "po", kRowColumns,
      [&rows](const Statement& statement) { sort_out(stored_row(statement), &rows); }, [] {});
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
