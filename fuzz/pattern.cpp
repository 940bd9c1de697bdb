// Patterns and names from arbitrary bytes, asked of a database that stays: the answers are those of
// a plain matcher, as far as the bytes mean the same to both.
#include <set>
#include <vector>

#include "fuzz/property.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "tests/support/records.h"

namespace {

using Names = std::vector<std::string>;

const Names& stored_names() {
  static const Names names = {"!",   "%",      "*",     "A",        "B_1",       "_",
                              "a",   "a%b",    "a'b",   "aXb",      "a\\b",      "a_b",
                              "abc", "abcabc", "b-1",   "client",   "client_17", "client_17_F2",
                              "x y", "x?y",    "zz.db", "\xc3\xa4", "\xff",      "\n"};
  return names;
}

// One database for each way in which a host may compare names, filled at the first call.
SQLitePODB& store(bool case_sensitive) {
  static const auto filled = [](const char* directory) {
    auto db = std::make_unique<SQLitePODB>(scratch(), scratch() + directory);
    db->begin_transaction();
    for (const std::string& name : stored_names()) {
      if (name == "A" && !OSIsCaseSensitive()) continue;
      FilePO entry(file_text(name, "", 0, "/p"));
      require(db->put(&entry) == CR_STATUS_OK, "the names are stored");
    }
    db->commit_transaction();
    return db;
  };
  static const auto sensitive = filled("/5/sensitive");
  static const auto insensitive = [] {
    refhost::set_case_sensitive(false);
    return filled("/5/insensitive");
  }();
  refhost::set_case_sensitive(case_sensitive);
  return case_sensitive ? *sensitive : *insensitive;
}

bool same(char a, char b, bool case_sensitive) {
  const auto folded = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  return case_sensitive ? a == b : folded(a) == folded(b);
}

bool matches(const char* pattern, const char* name, bool case_sensitive) {
  if (*pattern == '\0') return *name == '\0';
  if (*pattern == '*') {
    return matches(pattern + 1, name, case_sensitive) ||
           (*name != '\0' && matches(pattern, name + 1, case_sensitive));
  }
  const bool any = *pattern == '?' && case_sensitive;
  return *name != '\0' && (any || same(*pattern, *name, case_sensitive)) &&
         matches(pattern + 1, name + 1, case_sensitive);
}

// Bytes that mean something to SQLite only: quotes, sets, escapes, and all beyond ASCII.
bool is_plain(const std::string& pattern) {
  return std::all_of(pattern.begin(), pattern.end(), [](unsigned char c) {
    return c < 0x80 && c != '\'' && c != '[' && c != '\\' && c != '\0';
  });
}

struct Collector : POProcessor {
  int process(PO* po) override {
    names.emplace_back(POGetBasename(po->record()));
    return 0;
  }
  Names names;
};

void check_escape(const std::string& pattern) {
  std::string escaped = "untouched";
  const cr_status_t status = SQLitePODB::PatternEscape(pattern, escaped);
  if (pattern.size() > 2048) {
    require(status == CR_STATUS_BAD_ARG && escaped == "untouched", "a long pattern is refused");
    return;
  }
  std::string expected;
  for (const char c : pattern.substr(0, pattern.find('\0'))) {
    expected += c == '_' ? "\\_" : c == '%' ? "\\%" : std::string(1, c == '*' ? '%' : c);
  }
  require(status == CR_STATUS_OK && escaped == expected, "each byte is escaped by itself");
}

void check_search(SQLitePODB& db, const std::string& pattern, bool case_sensitive) {
  POQueue found;
  Collector visited;
  const cr_status_t status = db.find_by_pattern(pattern, &found, case_sensitive);
  require(db.process_by_pattern(pattern, &visited) == status, "both searches end alike");
  Names names;
  for (const auto& entry : found) names.emplace_back(POGetBasename(entry->record()));
  require(names == visited.names, "both searches find the same");
  const bool too_long = pattern.size() > 2048 && !case_sensitive;
  require(!too_long || (status == CR_STATUS_FAILED && names.empty()), "a long pattern is refused");
  // A pattern of many stars is beyond a matcher that tries everything.
  if (too_long || !is_plain(pattern) || std::count(pattern.begin(), pattern.end(), '*') > 6) return;
  require(status == CR_STATUS_OK || pattern.size() > 2048, "a plain pattern can be searched");
  for (const std::string& name : stored_names()) {
    if (!is_plain(name) || status != CR_STATUS_OK || (name == "A" && !case_sensitive)) continue;
    const bool listed = std::find(names.begin(), names.end(), name) != names.end();
    require(listed == matches(pattern.c_str(), name.c_str(), case_sensitive),
            "what matches is found");
  }
}

void check_name(SQLitePODB& db, const std::string& text, bool case_sensitive) {
  const std::string name = text.substr(0, text.find('\0'));
  const Names& all = stored_names();
  const bool stored = std::any_of(all.begin(), all.end(), [&](const std::string& one) {
    return one.size() == name.size() &&
           std::equal(one.begin(), one.end(), name.begin(),
                      [&](char a, char b) { return same(a, b, case_sensitive); });
  });
  if (text.find('\0') != std::string::npos) return;
  FilePO entry(5);
  require(db.exists(name) == stored, "a name exists when it is stored");
  require(db.get(name, &entry) == (stored ? CR_STATUS_OK : CR_STATUS_NOT_FOUND),
          "and is read then");
  Names later;
  require(db.find_by_cursor(name, &later, 1) == CR_STATUS_OK, "the names after any can be listed");
  require(std::is_sorted(later.begin(), later.end()) || !case_sensitive, "in their order");
  const auto after =
      std::count_if(all.begin(), all.end(), [&](const auto& one) { return one > name; });
  require(!case_sensitive || later.size() == static_cast<std::size_t>(after), "and all of them");
}

}  // namespace

// The first byte says how names are compared.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  scratch();
  Input input(data, size);
  const bool case_sensitive = input.byte() % 2 == 0;
  const std::string text = input.rest();
  SQLitePODB& db = store(case_sensitive);
  check_escape(text);
  check_search(db, text, case_sensitive);
  check_name(db, text, case_sensitive);
  db.backupid_exists(text);
  return 0;
}
