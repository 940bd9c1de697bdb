// Files made to hurt in the places of po.db and ul.db: every operation answers with a status that
// its callers know, soon, and without much memory.
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <functional>

#include "refhost/control.h"
#include "tests/crash/lane.h"
#include "tests/damage/verify.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

struct Hostile {
  std::string what;
  std::function<void(const std::string& file)> make;
};

// As the library defines them.
const std::string kTables =
    "CREATE TABLE po (basename TEXT PRIMARY KEY, poid TEXT, content TEXT, crc INT);"
    "CREATE TABLE IF NOT EXISTS utable (poid TEXT PRIMARY KEY, udcids BLOB);";
const std::string kEndless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) ";

int run_sql(const std::string& file, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);  // it would hurt the maker
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return rc;
}

Hostile sql(const std::string& text) {
  return {text.substr(0, 400), [text](const std::string& file) { run_sql(file, text); }};
}

// A sound database of 300 rows with some of its bytes overwritten.
Hostile bytes(std::size_t offset, const std::string& written) {
  return {"bytes at " + std::to_string(offset), [offset, written](const std::string& file) {
            run_sql(file, kTables + "INSERT INTO po " + kEndless +
                              "SELECT i, 'p' || i, hex(zeroblob(i * 10)), 1 FROM n LIMIT 300;"
                              "INSERT INTO utable SELECT poid, zeroblob(crc + 5000) FROM po");
            std::fstream(file, std::ios::in | std::ios::out).seekp(std::streamoff(offset))
                << written;
          }};
}

// Each definition of the tables with each kind of row in it.
void add_definitions(std::vector<Hostile>& all) {
  const std::string lists = kTables.substr(kTables.find(';') + 1);
  const std::string rows[] = {
      "NULL, NULL, NULL, NULL",
      "1, 2.5, 3, -1e300",
      "x'6100', x'00', x'610062', x'00'",
      "'a' || char(0) || 'b', char(0), 'c' || char(0), '1'",
      "CAST(x'ff' AS TEXT), CAST(x'fffe' AS TEXT), CAST(x'c0' AS TEXT), 99",
      "hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(1000000)), 1",
      "'../../x', 'p', '0|||1|||||0|N|0|040755', 18446744073709551616"};
  const std::string definitions[] = {
      kTables,
      "CREATE TABLE po (basename PRIMARY KEY, poid, content, crc) WITHOUT ROWID;"
      "CREATE TABLE utable (poid PRIMARY KEY, udcids) WITHOUT ROWID;",
      "CREATE TABLE po (basename COLLATE RTRIM PRIMARY KEY, poid, content, crc);"
      "CREATE TABLE utable (poid COLLATE NOCASE PRIMARY KEY, udcids);",
      "CREATE TABLE po (basename PRIMARY KEY, poid, content, crc, a AS (hex(content)) STORED);",
      "CREATE TABLE po (basename CHECK (hex(zeroblob(9000000))), poid, content, crc CHECK (0));",
      "CREATE TABLE po (basename PRIMARY KEY REFERENCES po ON DELETE CASCADE, poid, content, crc);",
      "CREATE TABLE po (basename); CREATE TABLE utable (poid);",
      kTables + "CREATE INDEX po_poid ON po(poid) WHERE crc > 7;",
      kTables + "CREATE TRIGGER u BEFORE INSERT ON utable BEGIN DELETE FROM utable; END;",
      kTables + "CREATE TRIGGER t AFTER INSERT ON po BEGIN INSERT INTO po(basename) " + kEndless +
          "SELECT i FROM n; END;"};
  for (const std::string& definition : definitions) {
    all.push_back(sql(definition));
    for (const std::string& row : rows) {
      all.push_back(sql(definition + lists + "INSERT INTO po(basename, poid, content, crc) " +
                        "VALUES (" + row + "); INSERT INTO utable SELECT poid, content FROM po"));
    }
  }
}

// Something else than a table, and definitions that compute.
void add_objects(std::vector<Hostile>& all) {
  const std::string columns = "(basename, poid, content, crc, udcids)";
  for (const std::string table : {"po", "utable"}) {
    all.push_back(sql("CREATE VIEW " + table + columns + " AS SELECT * FROM " + table));
    all.push_back(
        sql("CREATE VIEW " + table + columns + " AS " + kEndless + "SELECT i, i, i, i, i FROM n"));
    all.push_back(sql("CREATE VIRTUAL TABLE " + table + " USING fts5" + columns));
    all.push_back(sql("CREATE VIRTUAL TABLE " + table + " USING dbstat(main)"));
    for (const std::string value :
         {"zeroblob(99999999)", "hex(hex(hex(zeroblob(12000000))))", "printf('%99999999d', 1)",
          "replace(hex(zeroblob(5000)), '0', hex(zeroblob(5000)))"}) {
      all.push_back(sql("CREATE TABLE " + table + "(basename DEFAULT 'a', poid DEFAULT 'p', crc, " +
                        "content AS (" + value + "), udcids AS (" + value + ")); INSERT INTO " +
                        table + " (crc) VALUES (1)"));
    }
  }
  const std::string others[] = {
      "CREATE TABLE po (basename /*" + std::string(900000, 'x') + "*/)",
      "PRAGMA encoding = 'UTF-16le'; CREATE TABLE po (basename)",
      "PRAGMA journal_mode = WAL; CREATE TABLE po (basename)",
      kTables + "PRAGMA writable_schema = 1; UPDATE sqlite_master SET rootpage = 1",
      kTables + "PRAGMA writable_schema = 1; UPDATE sqlite_master SET sql = hex(sql)"};
  for (const std::string& other : others) all.push_back(sql(other));
}

void add_bytes(std::vector<Hostile>& all) {
  using namespace std::string_literals;
  const std::string most(4, '\xff');
  // Page sizes, versions, reserved bytes, fractions, counts of pages, free lists, formats and codes
  // of every kind.
  for (const std::size_t offset : {0U, 16U, 18U, 20U, 21U, 28U, 32U, 44U, 52U, 56U}) {
    for (const std::string& written : {most + most, "\0\1"s, "\0\3"s, "\2\0"s, "\2\2"s, "\7\7"s,
                                       "\0\4\0\0"s, "\0\0\0\1\x7f\xff\xff\xff"s}) {
      all.push_back(bytes(offset, written));
    }
  }
  // Of several pages: cells outside, a child that is the page itself, claimed lengths.
  for (std::size_t at = 4096; at < 12 * 4096; at += 4096) {
    const std::string number(1, static_cast<char>(at / 4096 + 1));
    all.push_back(bytes(at + 3, most));
    all.push_back(bytes(at, "\5\0\0\0\1\x0f\xf0\0\0\0\0"s + number));
    all.push_back(bytes(at + 3000, std::string(1000, '\x84')));
  }
}

void add_files(std::vector<Hostile>& all) {
  const Hostile sound = bytes(0, "");
  all.push_back(sound);
  all.push_back({"nothing", [](const std::string&) {}});
  all.push_back({"a pipe", [](const std::string& f) { mkfifo(f.c_str(), 0600); }});
  all.push_back({"a directory", [](const std::string& f) { fs::create_directory(f); }});
  for (const std::string text : {"", "po\n", "SQLite format 3"}) {
    all.push_back({"text " + text, [text](const std::string& f) { std::ofstream(f) << text; }});
  }
  for (const std::string to :
       {"/dev/zero", "/dev/null", "/dev/tty", "gone", ".", "po.db", "ul.db"}) {
    all.push_back({"a link to " + to, [to](const std::string& f) { fs::create_symlink(to, f); }});
  }
  for (const auto& first : {sound, bytes(28, std::string("\0\4\0\0", 4))}) {
    all.push_back({first.what + " and a hole", [first](const std::string& f) {
                     first.make(f);
                     fs::resize_file(f, 1 << 30);
                   }});
  }
  all.push_back({"a foreign journal", [sound](const std::string& f) {
                   sound.make(f);
                   std::ofstream(f + "-journal")
                       << "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7" << std::string(9000, '\xff');
                 }});
}

using Statuses = std::set<cr_status_t>;

// What an operation may answer: done, no row, what SQLite says, an empty file, a damaged row, a
// content that is no entry, a file that is not made where one is, and rows that keep a file.
const Statuses kSpecified = {CR_STATUS_OK,         CR_STATUS_NOT_FOUND, CR_STATUS_EXISTS,
                             CR_STATUS_FAILED,     CR_STATUS_BAD_ARG,   CR_STATUS_IO_ERROR,
                             CR_STATUS_BAD_DATA,   CR_STATUS_CORRUPT,   CR_STATUS_NONE,
                             CR_STATUS_BAD_RECORD, CR_STATUS_NOT_EMPTY};

Statuses use_everything(const std::string& root, const std::string& dir) {
  SQLitePODB po(root, dir);
  SQLiteULDB ul(dir, 0);
  FilePO entry(file_text("a", make_poid(1), 1, "/c/p"));
  std::set<std::string> poids = {"p"}, leaks = {"p"};
  POQueue out;
  std::vector<std::string> names;
  unsigned long n = 0;
  UDCIDRecord list;
  return {po.checkopen(),
          po.get("a", &entry),
          po.find_by_pattern("*", &out, true),
          po.find_by_cursor("", &names, 0),
          po.double_check(&poids, &out, &leaks, &n),
          (po.db_integrity_OK(), po.put(&entry)),
          po.del("a"),
          po.drop_db_if_empty(),
          po.close_db(0),
          po.open(),
          ul.count(&n),
          ul.get_all([](const char*, UDCIDRecord*) { return CR_STATUS_OK; }),
          (delete ul.get("p"), *__cr_errno_location()),
          ul.put("p", &list, nullptr),
          ul.del("p")};
}

class HostileFiles : public testing::Test {
 protected:
  HostileFiles() {
    refhost::log_to_sink([](const refhost::LogLine&) {});
    fs::create_directories(dir_);
  }

  const bool in_memory_ = work_in_memory();
  const TempDir root_;
  const std::string dir_ = root_.path("5/c/p");
};

TEST_F(HostileFiles, get_a_specified_answer_soon_and_with_little_memory) {
  double slowest = 0;
  sqlite3_int64 most = 0;
  std::vector<Hostile> files;
  for (const auto add : {add_definitions, add_objects, add_bytes, add_files}) add(files);
  EXPECT_GE(files.size(), 200U);
  for (const Hostile& hostile : files) {
    for (const std::string name : {"/po.db", "/ul.db"}) {
      SCOPED_TRACE(hostile.what + " as " + name);
      fs::remove_all(dir_);
      fs::create_directories(dir_);
      hostile.make(dir_ + name);
      sqlite3_memory_highwater(1);
      const std::clock_t start = std::clock();  // of the processor: others may keep it busy
      verify_finds_faults(root_.path());
      const Statuses statuses = use_everything(root_.path(), dir_);
      slowest = std::max(slowest, static_cast<double>(std::clock() - start) / CLOCKS_PER_SEC);
      most = std::max(most, sqlite3_memory_highwater(0));
      for (const cr_status_t status : statuses) EXPECT_EQ(kSpecified.count(status), 1U) << status;
      ASSERT_LT(slowest, 1.0);
      ASSERT_LT(most, 64 << 20);
    }
  }
  std::printf("%zu files in 2 places; slowest %.3f s, most memory %.1f MiB\n", files.size(),
              slowest, static_cast<double>(most) / (1 << 20));
}

// A single bit can make a table of one row look empty.
TEST_F(HostileFiles, are_not_dropped_for_being_empty_when_they_only_seem_to_be) {
  SQLitePODB db(root_.path(), dir_);
  store(db, "a", 1);
  must(db.close_db(0));
  std::fstream(db.get_dbfile_path(), std::ios::in | std::ios::out).seekp(4096 + 4) << '\0';
  EXPECT_EQ(db.drop_db_if_empty(), CR_STATUS_NOT_EMPTY);
}

// The same file hurts those who do not defend themselves.
TEST_F(HostileFiles, would_work_on_another_connection) {
  const std::string view = kEndless + "SELECT i AS basename, i AS poid FROM n LIMIT 3";
  run_sql(dir_ + "/po.db", "CREATE VIEW po AS " + view);
  EXPECT_EQ(run_sql(dir_ + "/po.db", "SELECT * FROM po"), SQLITE_OK);
  std::vector<std::string> names;
  EXPECT_EQ(SQLitePODB(root_.path(), dir_).find_by_cursor("", &names, 0), CR_STATUS_FAILED);
}

}  // namespace
