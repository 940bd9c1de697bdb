#include "cli/stored_rows.h"

#include <sqlite3.h>

#include <functional>
#include <string_view>
#include <utility>

#include "cli/batch_errors.h"
#include "cli/sqlite_reader.h"
#include "cli/stored_row.h"
#include "podb/sqlite_podb.h"

namespace cli {

namespace {

constexpr std::size_t kMostRecordBytes = 8 << 20;

// The same for the same names of the same rows, in whatever order they come.
struct Fingerprint {
  std::uint64_t rows = 0;
  std::uint64_t sum = 0;

  void add(std::string_view name, std::int64_t rowid) {
    ++rows;
    sum += std::hash<std::string_view>()(name) * (2 * static_cast<std::uint64_t>(rowid) + 1);
  }
  bool operator==(const Fingerprint& other) const { return rows == other.rows && sum == other.sum; }
};

class Reader {
 public:
  explicit Reader(const Connection& connection) : connection_(connection) {}

  StoredRows read() {
    check(walk_table(
        connection_, "po", kRowColumns,
        [this](const Statement& statement) { take(stored_row(statement)); }, [] {}));
    if (!(read_index() == table_)) check_integrity();
    return std::move(rows_);
  }

 private:
  static void check(int code) {
    if (code != SQLITE_DONE) {
      throw DirectoryError{status_of_sqlite(code), "its database cannot be read"};
    }
  }

  void take(RawRow row) {
    table_.add(row.basename.bytes, row.rowid);
    const bool sound = row_faults(row).empty();
    bytes_ += row.basename.bytes.size() + row.content.bytes.size();
    if (sound && bytes_ <= kMostRecordBytes) {
      rows_.records.emplace(std::move(row.basename.bytes), std::move(row.content.bytes));
    } else if (!sound && has_usable_name(row)) {
      rows_.damaged.insert(row.basename.bytes);
    } else if (!sound) {
      rows_.nameless.push_back(row.basename.bytes);
    }
  }

  Fingerprint read_index() {
    Fingerprint index;
    Statement names(connection_, "SELECT basename, rowid FROM po ORDER BY basename");
    int code = names.step();
    for (; code == SQLITE_ROW; code = names.step()) index.add(names.view(0), names.integer(1));
    check(code);
    return index;
  }

  // By an index that is damaged a store would replace or delete other rows. The two may also differ
  // because somebody has written between them.
  void check_integrity() {
    Statement checked(connection_, "PRAGMA integrity_check(1)");
    const int code = checked.step();
    if (code == SQLITE_ROW && checked.view(0) == "ok") return;
    throw DirectoryError{code == SQLITE_ROW ? CR_STATUS_CORRUPT : status_of_sqlite(code),
                         "its database is damaged and left as it is"};
  }

  const Connection& connection_;
  StoredRows rows_;
  Fingerprint table_;
  std::size_t bytes_ = 0;
};

}  // namespace

StoredRows read_stored_rows(const OpenTable& entries) {
  return entries.exists ? Reader(entries.connection).read() : StoredRows();
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
