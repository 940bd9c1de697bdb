#include "cli/list_reader.h"

#include "cli/list_faults.h"
#include "cli/sqlite_reader.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// CR_STATUS_NOT_FOUND when the directory has no database with lists.
cr_status_t open_lists(const CatalogPath& directory, Connection* connection) {
  const std::string file = directory.child(SQLiteULDB::dbfilename()).full();
  const int code = open_table(file, "utable", connection);
  if (code == SQLITE_DONE) return CR_STATUS_NOT_FOUND;
  return code == SQLITE_ROW ? CR_STATUS_OK : status_of_sqlite(code);
}

// A list that is no blob is none.
cr_status_t list_of(const Statement& row, int column, UDCIDRecord* list) {
  if (row.type(column) != SQLITE_BLOB) return CR_STATUS_BAD_DATA;
  return decode_list(row.view(column), list);
}

}  // namespace

cr_status_t read_list(const CatalogPath& directory, const std::string& poid, UDCIDRecord* list) {
  Connection connection;
  const cr_status_t opened = open_lists(directory, &connection);
  if (opened != CR_STATUS_OK) return opened;
  Statement row(connection, "SELECT udcids FROM utable WHERE poid = ?");
  row.bind(1, poid);
  const int code = row.step();
  if (code == SQLITE_DONE) return CR_STATUS_NOT_FOUND;
  return code == SQLITE_ROW ? list_of(row, 0, list) : status_of_sqlite(code);
}

cr_status_t read_lists(const CatalogPath& directory,
                       const std::function<void(UDCIDRecord* list)>& take) {
  Connection connection;
  const cr_status_t opened = open_lists(directory, &connection);
  if (opened == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;
  if (opened != CR_STATUS_OK) return opened;
  const auto take_row = [&take](const Statement& row) {
    UDCIDRecord list;
    take(list_of(row, 1, &list) == CR_STATUS_OK ? &list : nullptr);
  };
  const int code = walk_table(connection, "utable", "udcids", take_row, [] {});
  return code == SQLITE_DONE ? CR_STATUS_OK : status_of_sqlite(code);
}

}  // namespace cli
