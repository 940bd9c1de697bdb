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

using Fail = void (*)(int code);

OpenTable open_or_fail(const std::string& file, const std::string& table, Fail fail) {
  OpenTable opened;
  const int code = opened.open(file, table);
  if (code != SQLITE_OK) fail(code);
  return opened;
}

// The rows of a table in order of their POIDs; none when there is no table. `fail` throws for the
// code of a failure.
class Rows {
 public:
  Rows(const OpenTable& table, const std::string& select, Fail fail)
      : fail_(fail), exists_(table.exists) {
    if (exists_) rows_.emplace(table.connection, select + kOrder);
  }

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
  bool exists_;  // the next row
  std::optional<Statement> rows_;
  std::string poid_;
};

bool intact(const Rows& list) {
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

// Looking for the table undoes the unfinished transaction of a crash: when that was the first one,
// it leaves nothing.
OpenTable open_lists(const std::string& file) {
  OpenTable lists = open_or_fail(file, "utable", fail_lists);
  if (lists.exists || !is_there(file)) return lists;
  if (!is_empty_file(file)) {
    throw DirectoryError{CR_STATUS_BAD_DATA, "its ul.db is no database of lists of containers"};
  }
  lists = OpenTable();  // closed before its file goes
  remove_lists(file);
  return lists;
}

ListGaps compare(const OpenTable& entry_table, const OpenTable& list_table) {
  Rows entries(entry_table, "SELECT DISTINCT poid FROM po", fail_entries);
  Rows lists(list_table, "SELECT poid, udcids FROM utable", fail_lists);
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

OpenTable open_entry_table(const std::string& directory) {
  return open_or_fail(directory + "/" + SQLitePODB::dbfilename(), "po", fail_entries);
}

ListGaps find_list_gaps(const OpenTable& entries, const std::string& directory,
                        IngestOutcome* outcome) {
  const std::string lists = directory + "/" + SQLiteULDB::dbfilename();
  for (;;) {
    try {
      return compare(entries, open_lists(lists));
    } catch (const ListsDamaged&) {
      remove_lists(lists);
      outcome->problems.push_back(
          {lists, CR_STATUS_OK, "mended: it was damaged, and its lists are made anew"});
    }
  }
}

}  // namespace cli
