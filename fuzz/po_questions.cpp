#include "fuzz/po_questions.h"

#include <sqlite3.h>

#include <cstring>
#include <memory>
#include <set>
#include <vector>

#include "base/hardening_internal.h"
#include "fuzz/property.h"
#include "host/host.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "tests/support/records.h"

namespace {

// Names, each with its entry as it prints.
using Texts = std::multiset<std::pair<std::string, std::string>>;

struct Truth {
  bool whole = false;  // every row could be read, and SQLite finds no damage
  Texts entries;       // rows that pass all checks
  Texts listed;        // those whose name is a text: SQLite matches no pattern with bytes
  std::multiset<std::string> names;  // theirs, as far as texts without a NUL: what can be asked for
};

using Values = std::vector<const char*>;

std::uint32_t plain_adler(const Values& texts) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const char* text : texts) {
    for (; *text != '\0'; ++text) {
      a = (a + static_cast<unsigned char>(*text)) % 65521;
      b = (b + a) % 65521;
    }
  }
  return b << 16 | a;
}

void take_row(Truth& truth, sqlite3_stmt* row) {
  Values values;
  const bool is_text = sqlite3_column_type(row, 0) == SQLITE_TEXT;
  for (int i = 0; i < 4; ++i) {
    values.push_back(reinterpret_cast<const char*>(sqlite3_column_text(row, i)));
    if (values.back() == nullptr) return;
  }
  const auto stored = static_cast<std::uint32_t>(std::strtoull(values[3], nullptr, 10));
  const char* const name = values[0];
  FilePO entry(5);
  if (plain_adler({name, values[1], values[2]}) != stored) return;
  if (entry.set(scratch(), values[2], po_directory() + "/" + name) != 0) return;
  const Texts::value_type taken(POGetBasename(entry.record()), text_of(entry.record()));
  truth.entries.insert(taken);
  if (is_text) truth.listed.insert(taken);
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(row, 0));
  if (is_text && std::strlen(name) == size) truth.names.insert(name);
}

// Reads rows until `sql` ends; false when it does not end well.
template <class Take>
bool each_row(sqlite3* db, const char* sql, Take take) {
  sqlite3_stmt* compiled = nullptr;
  int code = sqlite3_prepare_v2(db, sql, -1, &compiled, nullptr);
  const std::unique_ptr<sqlite3_stmt, decltype(&sqlite3_finalize)> row(compiled, sqlite3_finalize);
  if (code != SQLITE_OK) return false;
  while ((code = sqlite3_step(compiled)) == SQLITE_ROW) take(compiled);
  return code == SQLITE_DONE;
}

Truth read_truth() {
  sqlite3* opened = nullptr;
  sqlite3_open_v2(po_file().c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
  const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> db(opened, sqlite3_close);
  harden(opened);
  Truth truth;
  std::string verdict;
  truth.whole = each_row(opened, "PRAGMA integrity_check", [&](sqlite3_stmt* row) {
    verdict += reinterpret_cast<const char*>(sqlite3_column_text(row, 0));
  });
  truth.whole = each_row(opened, "SELECT basename, poid, content, crc FROM po NOT INDEXED",
                         [&](sqlite3_stmt* row) { take_row(truth, row); }) &&
                truth.whole && verdict == "ok";
  return truth;
}

// What the library finds, by name.
struct Found : POProcessor {
  int process(PO* po) override {
    entries.emplace(POGetBasename(po->record()), text_of(po->record()));
    return 0;
  }
  void add(const POQueue& queue) {
    for (const auto& entry : queue) process(entry.get());
  }
  Texts entries;
};

bool is_part(const Texts& some, const Texts& all) {
  return std::includes(all.begin(), all.end(), some.begin(), some.end());
}

void compare(const Found& found, const Truth& truth, bool all_asked) {
  if (!truth.whole) return;
  require(is_part(found.entries, truth.entries), "nothing is invented");
  require(!all_asked || is_part(truth.listed, found.entries), "nothing is left out");
}

void ask_for_one(SQLitePODB& db, const std::string& name, const Truth& truth) {
  FilePO entry(5);
  Found found;
  const cr_status_t status = db.get(name, &entry);
  if (status == CR_STATUS_OK) found.process(&entry);
  compare(found, truth, false);
  if (!truth.whole) return;
  require(db.exists(name) || truth.names.count(name) == 0, "a sound row exists");
  require(status == CR_STATUS_OK || truth.names.count(name) != 1, "a single sound row is read");
}

void ask_for_lists(SQLitePODB& db, const Truth& truth) {
  POQueue queue;
  Found found;
  Found visited;
  const cr_status_t status = db.find_by_pattern("*", &queue, true);
  found.add(queue);
  const cr_status_t second = db.process_by_pattern("*", &visited);
  // Where SQLite comes upon damage depends on the pages that it holds already.
  if (truth.whole) {
    require(second == status, "both searches end alike");
    require(found.entries == visited.entries, "both searches find the same");
  }
  compare(found, truth, status == CR_STATUS_OK);

  std::vector<std::string> names;
  if (db.find_by_cursor("", &names, 0) == CR_STATUS_OK && truth.whole) {
    for (const std::string& name : truth.names) {
      const bool listed = std::find(names.begin(), names.end(), name) != names.end();
      require(listed || name.empty(), "every sound row is among the names");
    }
  }
}

void ask_for_contents(SQLitePODB& db, const Truth& truth) {
  const std::set<std::string> asked = {make_poid(1), make_poid(2), "", "x"};
  std::set<std::string> affected = asked;
  std::set<std::string> unused = asked;
  POQueue queue;
  Found found;
  unsigned long rows = 0;
  const cr_status_t status = db.double_check(&affected, &queue, &unused, &rows);
  found.add(queue);
  compare(found, truth, false);
  if (status != CR_STATUS_OK) return;
  for (const auto& entry : queue) {
    const std::string poid = POGetHashRef(entry->record());
    require(affected.count(poid) == 0 || asked.count(poid) == 0, "what is found is in use");
  }
  for (const std::string& poid : unused) require(asked.count(poid) > 0, "no content is made up");
}

// Only of a sound file: its schema may still be any.
void change(SQLitePODB& db, const Truth& truth) {
  const std::string text = file_text("new file", make_poid(3), 7, "/p");
  FilePO entry(text);
  FilePO stored(5);
  const bool put = db.begin_transaction() == CR_STATUS_OK && db.put(&entry) == CR_STATUS_OK &&
                   db.commit_transaction() == CR_STATUS_OK;
  if (!put) db.rollback_transaction();
  const cr_status_t status = db.get("new file", &stored);
  if (put && truth.whole) require(status == CR_STATUS_OK, "what was stored is there");
  if (put && status == CR_STATUS_OK) {
    require(POGetSize(stored.record()) == 7, "what was stored is what comes back");
  }
  if (put && truth.whole) require(db.del("new file") == CR_STATUS_OK, "and can be deleted");
  db.drop_db_if_empty();
}

}  // namespace

std::string po_directory() { return scratch() + "/5/p"; }
std::string po_file() { return po_directory() + "/po.db"; }

void ask_everything() {
  const Truth truth = read_truth();
  SQLitePODB db(scratch(), po_directory());
  if (db.checkopen() == CR_STATUS_OK) db.load_podb_version();
  for (const char* name : {"a", "b", "nothing", "a'b", ""}) ask_for_one(db, name, truth);
  ask_for_lists(db, truth);
  ask_for_contents(db, truth);
  unsigned long rows = 0;
  if (db.count(&rows) == CR_STATUS_OK && truth.whole) {
    require(rows >= truth.entries.size(), "the sound rows are counted");
  }
  db.potable_exists();
  db.backupid_exists("a");
  db.db_integrity_OK();
  change(db, truth);
}
