// Files made to hurt in the places of po.db and ul.db: every operation answers with a status that
// its callers know, soon, and without much memory.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>

#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "tests/damage/subject.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"
#include "uldb/sqlite_uldb.h"

namespace {

namespace fs = std::filesystem;

struct Hostile {
  std::string what;
  std::function<void(const std::string& file)> make;
};

int run_sql(const std::string& file, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);  // it would hurt the maker
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return rc;
}

Hostile sql(const std::string& what, const std::string& text) {
  return {what, [text](const std::string& file) { run_sql(file, text); }};
}

// A sound database of that many rows with some of its bytes overwritten.
Hostile bytes(const std::string& what, std::size_t offset, const std::string& written) {
  return {what, [offset, written](const std::string& file) {
            run_sql(file,
                    "CREATE TABLE po (basename TEXT PRIMARY KEY, poid TEXT, content TEXT, crc INT);"
                    "CREATE TABLE utable (poid TEXT PRIMARY KEY, udcids BLOB);"
                    "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n WHERE i < 300) "
                    "INSERT INTO po SELECT i, 'p' || i, hex(zeroblob(i * 10)), 1 FROM n;"
                    "INSERT INTO utable SELECT poid, zeroblob(crc + 5000) FROM po");
            std::fstream out(file, std::ios::in | std::ios::out | std::ios::binary);
            out.seekp(static_cast<std::streamoff>(offset));
            out << written;
          }};
}

// Each definition of the tables with each kind of row in it.
void add_definitions(std::vector<Hostile>& all) {
  const std::string four = "basename, poid, content, crc";
  const std::string rest = "poid TEXT, content TEXT, crc INT";
  const std::string lists = "CREATE TABLE utable (poid TEXT PRIMARY KEY, udcids BLOB);";
  const std::string entries = "CREATE TABLE po (basename TEXT PRIMARY KEY, " + rest + ");";
  const std::string endless =
      "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT ";
  const std::pair<std::string, std::string> definitions[] = {
      {"the library's", entries + lists},
      {"no keys", "CREATE TABLE po (" + four + "); CREATE TABLE utable (poid, udcids)"},
      {"no rowids", "CREATE TABLE po (basename PRIMARY KEY, " + rest + ") WITHOUT ROWID;" +
                        "CREATE TABLE utable (poid PRIMARY KEY, udcids) WITHOUT ROWID"},
      {"strict",
       "CREATE TABLE po (basename TEXT PRIMARY KEY, poid ANY, content ANY, crc ANY) STRICT;" +
           lists},
      {"another collation",
       "CREATE TABLE po (basename TEXT COLLATE RTRIM PRIMARY KEY, " + rest +
           "); CREATE TABLE utable (poid TEXT COLLATE NOCASE PRIMARY KEY, udcids)"},
      {"other columns in the index", entries + lists + "CREATE INDEX po_poid ON po(crc, content)"},
      {"an index of an expression", entries + lists + "CREATE INDEX po_poid ON po(upper(poid))"},
      {"an index of a part", entries + lists + "CREATE INDEX po_poid ON po(poid) WHERE crc > 7"},
      {"generated columns",
       "CREATE TABLE po (basename TEXT PRIMARY KEY, poid TEXT, content TEXT, "
       "crc INT, more AS (hex(content)), most AS (poid) STORED);" +
           lists},
      {"a huge default",
       "CREATE TABLE po (" + four + ", more DEFAULT (zeroblob(99999999)));" + lists},
      {"checks",
       "CREATE TABLE po (basename TEXT PRIMARY KEY CHECK (length(hex(zeroblob(9000000)))), " +
           rest + " CHECK (0));" + lists},
      {"a trigger", entries + lists +
                        "CREATE TRIGGER t BEFORE INSERT ON po BEGIN DELETE FROM po; END;"
                        "CREATE TRIGGER u BEFORE INSERT ON utable BEGIN DELETE FROM utable; END"},
      {"a trigger of itself",
       entries + lists +
           "CREATE TRIGGER t AFTER INSERT ON po BEGIN "
           "INSERT OR REPLACE INTO po VALUES (new.basename || 'x', 1, 1, 1); END"},
      {"a trigger without end", entries + lists +
                                    "CREATE TABLE x (a); CREATE TRIGGER t AFTER "
                                    "INSERT ON po BEGIN INSERT INTO x " +
                                    endless + "i FROM n; END"},
      {"references",
       "PRAGMA foreign_keys = 1; CREATE TABLE po (basename TEXT PRIMARY KEY REFERENCES "
       "po(basename) ON DELETE CASCADE, " +
           rest + ");" + lists},
      {"many columns less", "CREATE TABLE po (basename); CREATE TABLE utable (poid)"},
      {"many columns more",
       entries + lists + "ALTER TABLE po ADD extra; ALTER TABLE utable ADD extra"},
      {"a reserved name", entries + lists + "CREATE TABLE registry (name INT, value BLOB, x)"},
  };
  const std::pair<std::string, std::string> rows[] = {
      {"none", ""},
      {"NULLs", "NULL, NULL, NULL, NULL"},
      {"numbers", "1, 2.5, 3, -1e300"},
      {"blobs with NULs", "x'6100', x'00', x'610062', x'00'"},
      {"texts with NULs", "'a' || char(0) || 'b', char(0), 'c' || char(0), '1'"},
      {"no UTF-8", "CAST(x'ff' AS TEXT), CAST(x'fffe' AS TEXT), CAST(x'c0' AS TEXT), 99"},
      {"a long one", "'a', 'p', hex(zeroblob(1000000)), 1"},
      {"long ones", "hex(zeroblob(60000)), hex(zeroblob(60000)), zeroblob(60000), 1"},
      {"names of elsewhere", "'../../x', 'p', '0|||1|||||0|N|0|040755', 18446744073709551616"},
  };
  for (const auto& [table, definition] : definitions) {
    for (const auto& [row, values] : rows) {
      const std::string insert = values.empty()
                                     ? ""
                                     : ";INSERT INTO po(" + four + ") VALUES (" + values +
                                           ");INSERT INTO utable SELECT poid, content FROM po";
      all.push_back(sql(table + ", rows: " + row, definition + insert));
    }
  }
}

// Something else than a table, and definitions that compute.
void add_objects(std::vector<Hostile>& all) {
  const std::string endless =
      " AS WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) SELECT i AS basename, i "
      "AS "
      "poid, i AS content, i AS crc, i AS udcids FROM n";
  const std::string columns = "(basename, poid, content, crc, udcids)";
  for (const std::string table : {"po", "utable"}) {
    all.push_back(sql("a view for " + table, "CREATE VIEW " + table + endless));
    all.push_back(sql("a view of itself for " + table,
                      "CREATE VIEW " + table + columns + " AS SELECT * FROM " + table));
    for (const std::string module : {"fts4", "fts5", "dbstat"}) {
      const std::string arguments = module == "dbstat" ? "(main)" : columns;
      all.push_back(sql(module + " for " + table,
                        "CREATE VIRTUAL TABLE " + table + " USING " + module + arguments));
    }
    for (const std::string expression :
         {"zeroblob(99999999)", "hex(hex(hex(zeroblob(12000000))))", "printf('%99999999d', 1)",
          "replace(hex(zeroblob(5000)), '0', hex(zeroblob(5000)))"}) {
      all.push_back(sql("computed by " + expression + " in " + table,
                        "CREATE TABLE " + table +
                            "(basename DEFAULT 'a', poid DEFAULT 'p', crc, content AS (" +
                            expression + "), udcids AS (" + expression + ")); INSERT INTO " +
                            table + " (crc) VALUES (1)"));
    }
  }
  std::string many = "CREATE TABLE po (c0";
  for (int i = 1; i < 1999; ++i) many += ", c" + std::to_string(i);
  all.push_back(sql("2000 columns", many + ")"));
  all.push_back(
      sql("a long definition", "CREATE TABLE po (basename /*" + std::string(900000, 'x') + "*/)"));
  all.push_back(
      sql("no database text", "PRAGMA encoding = 'UTF-16le'; CREATE TABLE po (basename)"));
  all.push_back(
      sql("a log instead of a journal", "PRAGMA journal_mode = WAL; CREATE TABLE po (basename)"));
  all.push_back(sql("a schema that is written",
                    "PRAGMA writable_schema = 1; INSERT INTO sqlite_master VALUES "
                    "('table', 'po', 'po', 2, 'CREATE TABLE po (basename, poid, content, crc)')"));
  all.push_back(sql("a definition that is none",
                    "CREATE TABLE po (basename); PRAGMA writable_schema = 1; "
                    "UPDATE sqlite_master SET sql = hex(zeroblob(400000))"));
  all.push_back(sql("two tables in one page",
                    "CREATE TABLE po (basename, poid, content, crc); CREATE TABLE utable (poid, "
                    "udcids); PRAGMA writable_schema = 1; UPDATE sqlite_master SET rootpage = 1"));
}

void add_bytes(std::vector<Hostile>& all) {
  const std::string most(4, '\xff');
  const std::string gigabyte("\x00\x04\x00\x00", 4);
  const std::tuple<std::string, std::size_t, std::string> headers[] = {
      {"page size 1", 16, std::string("\x00\x01", 2)},
      {"page size 512", 16, std::string("\x02\x00", 2)},
      {"page size 3", 16, std::string("\x00\x03", 2)},
      {"versions of a log", 18, "\2\2"},
      {"versions of tomorrow", 18, "\7\7"},
      {"all bytes reserved", 20, "\xff"},
      {"other fractions", 21, "\1\1\1"},
      {"pages of a gigabyte", 28, gigabyte},
      {"most pages", 28, most},
      {"a free list outside", 32, most + most},
      {"a free list of itself", 32, std::string("\x00\x00\x00\x01\x7f\xff\xff\xff", 8)},
      {"format 9", 44, std::string("\x00\x00\x00\x09", 4)},
      {"encoding 9", 56, std::string("\x00\x00\x00\x09", 4)},
      {"a vacuum's pages", 52, most},
      {"an encrypted start", 0, "\x9a\x07\xd1\x55\xe8"},
  };
  for (const auto& [what, offset, written] : headers) all.push_back(bytes(what, offset, written));
  // Of several pages: cells outside, a child that is the page itself, claimed lengths.
  for (std::size_t page = 1; page < 12; ++page) {
    const std::size_t at = page * 4096;
    const std::string number(1, static_cast<char>(page + 1));
    all.push_back(bytes("cells outside", at + 3, "\xff\xff\xff\xff"));
    all.push_back(
        bytes("its own child", at, "\x05" + std::string("\0\0\0\1\x0f\xf0\0\0\0\0", 10) + number));
    all.push_back(bytes("a claimed length", at + 3000, std::string(1000, '\x84')));
  }
}

void add_files(std::vector<Hostile>& all) {
  all.push_back({"nothing", [](const std::string&) {}});
  all.push_back({"a pipe", [](const std::string& f) { mkfifo(f.c_str(), 0600); }});
  all.push_back({"a directory", [](const std::string& f) { fs::create_directory(f); }});
  all.push_back({"no bytes", [](const std::string& f) { std::ofstream out(f); }});
  all.push_back({"a text", [](const std::string& f) { std::ofstream(f) << "po\n"; }});
  all.push_back({"a start", [](const std::string& f) { std::ofstream(f) << "SQLite format 3"; }});
  all.push_back({"a hole", [](const std::string& f) {
                   std::ofstream{f};
                   fs::resize_file(f, 1 << 30);
                 }});
  all.push_back({"an unreadable one", [](const std::string& f) {
                   std::ofstream(f) << "x";
                   chmod(f.c_str(), 0);
                 }});
  for (const std::string to :
       {"/dev/zero", "/dev/null", "/dev/tty", "/dev/random", "gone", ".", "po.db", "ul.db"}) {
    all.push_back({"a link to " + to, [to](const std::string& f) { fs::create_symlink(to, f); }});
  }
  const Hostile sound = bytes("a sound one", 0, "");
  all.push_back({"a journal of elsewhere", [sound](const std::string& f) {
                   sound.make(f);
                   std::ofstream(f + "-journal")
                       << "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" << std::string(9000, '\xff');
                 }});
  all.push_back({"a gigabyte in one row", [sound](const std::string& f) {
                   sound.make(f);
                   std::fstream(f).seekp(28) << std::string("\0\4\0\0", 4);
                   fs::resize_file(f, 1 << 30);
                 }});
  all.push_back(sound);
}

std::vector<Hostile> all_files() {
  std::vector<Hostile> all;
  add_definitions(all);
  add_objects(all);
  add_bytes(all);
  add_files(all);
  return all;
}

// What an operation may answer: done, no row, what SQLite says, an empty file, a damaged row, a
// content that is no entry, a file that is not made where one is, and rows that keep a file.
bool is_specified(cr_status_t status) {
  for (const cr_status_t known :
       {CR_STATUS_OK, CR_STATUS_NOT_FOUND, CR_STATUS_EXISTS, CR_STATUS_FAILED, CR_STATUS_BAD_ARG,
        CR_STATUS_IO_ERROR, CR_STATUS_BAD_DATA, CR_STATUS_CORRUPT, CR_STATUS_NONE,
        CR_STATUS_BAD_RECORD, CR_STATUS_NOT_EMPTY}) {
    if (status == known) return true;
  }
  return false;
}

using Statuses = std::vector<cr_status_t>;

void use_entries(const std::string& root, const std::string& dir, Statuses& statuses) {
  SQLitePODB db(root, dir);
  FilePO entry(file_text("a", make_poid(1), 1, "/c/p"));
  std::set<std::string> poids = {"p"}, leaks = {"p"};
  POQueue out;
  std::vector<std::string> names;
  unsigned long n = 0;
  statuses.push_back(db.checkopen());
  statuses.push_back(db.get("a", &entry));
  statuses.push_back(db.find_by_pattern("*", &out, true));
  statuses.push_back(db.find_by_cursor("", &names, 0));
  statuses.push_back(db.double_check(&poids, &out, &leaks, &n));
  db.db_integrity_OK();
  statuses.push_back(db.put(&entry));
  statuses.push_back(db.del("a"));
  statuses.push_back(db.drop_db_if_empty());
  statuses.push_back(db.close_db(0));
  statuses.push_back(db.open());
}

cr_status_t ignore(const char*, UDCIDRecord*) { return CR_STATUS_OK; }

void use_lists(const std::string& dir, Statuses& statuses) {
  SQLiteULDB db(dir, 0);
  unsigned long n = 0;
  UDCIDRecord list;
  statuses.push_back(db.count(&n));
  statuses.push_back(db.get_all(ignore));
  delete db.get("p");
  statuses.push_back(*__cr_errno_location());
  statuses.push_back(db.put("p", &list, nullptr));
  statuses.push_back(db.del("p"));
}

// Of the processor: others may keep it busy.
double seconds_of(const std::function<void()>& work) {
  const std::clock_t start = std::clock();
  work();
  return static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC;
}

TEST(HostileFiles, get_a_specified_answer_soon_and_with_little_memory) {
  prepare();
  constexpr sqlite3_int64 kMemory = 64 << 20;
  double slowest = 0;
  sqlite3_int64 most = 0;
  std::size_t answers = 0;
  const std::vector<Hostile> files = all_files();
  EXPECT_GE(files.size(), 200U);
  for (const Hostile& hostile : files) {
    for (const std::string name : {"po.db", "ul.db"}) {
      SCOPED_TRACE(hostile.what + " as " + name);
      const TempDir root;
      const std::string dir = root.path("5/c/p");
      fs::create_directories(dir);
      hostile.make(dir + "/" + name);
      sqlite3_memory_highwater(1);
      Statuses statuses;
      const double took = std::max(
          seconds_of([&] { verify_finds_faults(root.path()); }), seconds_of([&] {
            name == "po.db" ? use_entries(root.path(), dir, statuses) : use_lists(dir, statuses);
          }));
      const sqlite3_int64 memory = sqlite3_memory_highwater(0);
      for (const cr_status_t status : statuses) EXPECT_TRUE(is_specified(status)) << status;
      EXPECT_LT(took, 1.0);
      EXPECT_LT(memory, kMemory);
      slowest = std::max(slowest, took);
      most = std::max(most, memory);
      answers += statuses.size();
    }
  }
  std::printf(
      "[ figures ] %zu files in 2 places, %zu answers; slowest %.3f s, most memory %.1f MiB\n",
      files.size(), answers, slowest, static_cast<double>(most) / (1 << 20));
}

// A single bit can make a table of one row look empty.
TEST(HostileFiles, are_not_dropped_for_being_empty_when_they_only_seem_to_be) {
  prepare();
  const TempDir root;
  SQLitePODB db(root.path(), root.path("5/c/p"));
  FilePO entry(file_text("a", make_poid(1), 1, "/c/p"));
  EXPECT_EQ(db.put(&entry) + db.close_db(0), CR_STATUS_OK);
  std::fstream(db.get_dbfile_path(), std::ios::in | std::ios::out).seekp(4096 + 4) << '\0';
  unsigned long rows = 0;
  EXPECT_EQ(db.drop_db_if_empty(), CR_STATUS_NOT_EMPTY);
  EXPECT_EQ(db.count(&rows) + (rows == 1 ? 0 : 1), CR_STATUS_OK) << "of the index";
}

// The same file hurts those who do not defend themselves.
TEST(HostileFiles, would_work_on_another_connection) {
  prepare();
  const TempDir root;
  const std::string dir = root.path("5/c/p");
  fs::create_directories(dir);
  run_sql(dir + "/po.db",
          "CREATE TABLE x (basename PRIMARY KEY, poid, content, crc); INSERT INTO x VALUES ('a', "
          "'', '', 1);"
          "CREATE VIEW po AS SELECT * FROM x");
  SQLitePODB db(root.path(), dir);
  EXPECT_EQ(run_sql(dir + "/po.db", "SELECT 1 / (SELECT count(*) FROM po)"), SQLITE_OK);
  std::vector<std::string> names;
  EXPECT_EQ(db.find_by_cursor("", &names, 0), CR_STATUS_FAILED);
  EXPECT_TRUE(names.empty());
}

}  // namespace
