#include "cli/list_gaps.h"

#include <optional>

#include "cli/batch_errors.h"
#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/list_faults.h"
#include "cli/sqlite_reader.h"
#include "host/files.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// The file of lists is of no use to anybody.
struct ListsDamaged {};

bool is_damage(int code) {
  const int primary = code & 0xff;
  return primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB;
}

[[noreturn]] void fail_entries(int code) {
  throw DirectoryError{status_of_sqlite(code), "its database cannot be read"};
}

[[noreturn]] void fail_lists(int code) {
  if (is_damage(code)) throw ListsDamaged();
  throw DirectoryError{status_of_sqlite(code), "its lists of containers cannot be read"};
}

// A table, if the file is there and has it. `fail` throws for the code of a failure.
class Table {
 public:
  using Fail = void (*)(int code);

  Table(const std::string& file, const std::string& table, const std::string& columns, Fail fail)
      : fail_(fail) {
    const int code = open_table(file, table, &connection_);
    if (code != SQLITE_ROW && code != SQLITE_DONE) fail_(code);
    exists_ = code == SQLITE_ROW;
    if (exists_) rows_.emplace(connection_, "SELECT " + columns + " FROM " + table + kOrder);
  }

  bool exists() const { return exists_; }

  // The next row with a well-formed POID, if there is one; `poid` is it then.
  bool next() {
    while (exists_) {
      const int code = rows_->step();
      exists_ = code == SQLITE_ROW;
      if (code != SQLITE_ROW && code != SQLITE_DONE) fail_(code);
      if (exists_) poid_ = rows_->bytes(0);
      if (exists_ && poid_.find('\0') == std::string::npos && POIDStringValidate(poid_.c_str())) {
        return true;
      }
    }
    return false;
  }

  const std::string& poid() const { return poid_; }
  const Statement& row() const { return *rows_; }

 private:
  static constexpr const char* kOrder = " WHERE typeof(poid) = 'text' AND poid > '' ORDER BY poid";

  const Fail fail_;
  Connection connection_;
  std::optional<Statement> rows_;
  bool exists_ = false;
  std::string poid_;
};

bool intact(const Table& list) {
  const int type = list.row().type(1);
  return list_faults({SQLITE_TEXT, list.poid()}, type, list.row().view(1)).empty();
}

void remove_lists(const std::string& file) {
  const cr_status_t status = keep_errno_of(wa_deletefile(file.c_str()));
  if (status == CR_STATUS_OK) return;
  throw DirectoryError{status, "its lists of containers are damaged and cannot be removed"};
}

bool is_empty_file(const std::string& file) {
  struct stat found {};
  return wa_stat(file.c_str(), &found) == CR_STATUS_OK && found.st_size == 0;
}

// Looking for the table has undone the unfinished transaction of a crash: when that was the first
// one, it leaves nothing.
void remove_leftover(const std::string& file) {
  const bool table_exists = Table(file, "utable", "poid", fail_lists).exists();
  if (table_exists || !is_there(file)) return;
  if (!is_empty_file(file)) {
    throw DirectoryError{CR_STATUS_BAD_DATA, "its ul.db is no database of lists of containers"};
  }
  remove_lists(file);
}

// Both in order of the POIDs.
ListGaps compare(Table entries, Table lists) {
  ListGaps gaps;
  bool entry = entries.next();
  bool list = lists.next();
  while (entry || list) {
    const int order = !list ? -1 : !entry ? 1 : entries.poid().compare(lists.poid());
    if (order < 0 || (order == 0 && !intact(lists))) gaps.missing.insert(entries.poid());
    if (order > 0) gaps.unused.insert(lists.poid());
    if (order <= 0) entry = entries.next();
    if (order >= 0) list = lists.next();
  }
  return gaps;
}

}  // namespace

ListGaps find_list_gaps(const std::string& directory, IngestOutcome* outcome) {
  const std::string entries = directory + "/" + SQLitePODB::dbfilename();
  const std::string lists = directory + "/" + SQLiteULDB::dbfilename();
  for (;;) {
    try {
      remove_leftover(lists);
      return compare(Table(entries, "po", "DISTINCT poid", fail_entries),
                     Table(lists, "utable", "poid, udcids", fail_lists));
    } catch (const ListsDamaged&) {
      remove_lists(lists);
      outcome->problems.push_back(
          {lists, CR_STATUS_OK, "mended: it was damaged, and its lists are made anew"});
    }
  }
}

}  // namespace cli
