// Files made to hurt in the places of po.db and ul.db: every operation answers with a status that
// its callers know, soon, and without much memory.

#include <algorithm>
#include <ctime>

#include "tests/damage/subjects.h"

namespace {

namespace fs = std::filesystem;
using namespace std::string_literals;

// Makes a file.
using Make = std::function<void(const std::string& file)>;
using Makers = std::vector<Make>;

// As the library defines them.
const std::string kTables =
    "CREATE TABLE po (basename TEXT PRIMARY KEY, poid TEXT, content TEXT, crc INT);"
    "CREATE TABLE utable (poid TEXT PRIMARY KEY, udcids BLOB);";
const std::string kEndless = "WITH RECURSIVE n(i) AS (SELECT 1 UNION ALL SELECT i + 1 FROM n) ";

int run_sql(const std::string& file, const std::string& sql) {
  sqlite3* db = nullptr;
  sqlite3_open(file.c_str(), &db);
  sqlite3_db_config(db, SQLITE_DBCONFIG_ENABLE_TRIGGER, 0, nullptr);  // it would hurt the maker
  const int rc = sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
  sqlite3_close(db);
  return rc;
}

Make sql(const std::string& text) {
  return [text](const std::string& file) { run_sql(file, text); };
}

// A sound database of 300 rows with some of its bytes overwritten.
Make bytes(std::size_t offset, const std::string& written) {
  return [offset, written](const std::string& file) {
    const std::string rows = "SELECT i, 'p' || i, hex(zeroblob(i * 10)), 1 FROM n LIMIT 300;";
    const std::string lists = "INSERT INTO utable SELECT poid, zeroblob(crc + 5000) FROM po";
    EXPECT_EQ(run_sql(file, kTables + "INSERT INTO po " + kEndless + rows + lists), SQLITE_OK);
    std::fstream(file, std::ios::in | std::ios::out).seekp(std::streamoff(offset)) << written;
  };
}

// Each definition of the tables with each kind of row in it.
void add_definitions(Makers& all) {
  const std::string definitions[] = {
      kTables,
      "CREATE TABLE po (basename PRIMARY KEY, poid, content, crc) WITHOUT ROWID;"
      "CREATE TABLE utable (poid PRIMARY KEY, udcids) WITHOUT ROWID;",
      "CREATE TABLE po (basename, poid, content, crc, more AS (hex(content)) STORED);"
      "CREATE TABLE utable (poid PRIMARY KEY REFERENCES utable ON DELETE CASCADE, udcids);",
      kTables +
          "CREATE INDEX po_poid ON po(poid) WHERE crc > 7;"
          "CREATE TRIGGER t AFTER INSERT ON po BEGIN INSERT INTO po(basename) " +
          kEndless + "SELECT i FROM n; END;"};
  const std::string rows[] = {
      "NULL, NULL, NULL, NULL",
      "1, x'00', x'610062', -1e300",
      "'a' || char(0) || 'b', char(0), 'c' || char(0), '1'",
      "CAST(x'ff' AS TEXT), CAST(x'fffe' AS TEXT), CAST(x'c0' AS TEXT), 99",
      "hex(zeroblob(60000)), hex(zeroblob(60000)), hex(zeroblob(1000000)), 1",
      "'../../x', 'p', '0|||1|||||0|N|0|040755', 18446744073709551616"};
  const auto with = [](const std::string& definition, const std::string& row) {
    return definition + "INSERT INTO po(basename, poid, content, crc) VALUES (" + row +
           "); INSERT INTO utable SELECT poid, content FROM po";
  };
  for (const std::string& definition : definitions) {
    for (const std::string& row : rows) all.push_back(sql(with(definition, row)));
  }
}

// Something else than a table, and definitions that compute.
void add_objects_as(const std::string& table, Makers& all) {
  const std::string columns = table + "(basename, poid, content, crc, udcids)";
  all.push_back(sql("CREATE VIEW " + columns + " AS SELECT * FROM " + table));
  all.push_back(sql("CREATE VIEW " + columns + " AS " + kEndless + "SELECT i, i, i, i, i FROM n"));
  all.push_back(sql("CREATE VIRTUAL TABLE " + table + " USING fts5(basename, poid, content)"));
  const auto computing = [&](const std::string& value) {
    return "CREATE TABLE " + table + "(basename DEFAULT 'a', poid DEFAULT 'p', crc, content AS (" +
           value + "), udcids AS (" + value + ")); INSERT INTO " + table + " (crc) VALUES (1)";
  };
  all.push_back(sql(computing("zeroblob(99999999)")));
  all.push_back(sql(computing("hex(hex(hex(zeroblob(12000000))))")));
}

void add_schemas(Makers& all) {
  add_objects_as("po", all), add_objects_as("utable", all);
  all.push_back(sql("CREATE TABLE po (basename /*" + std::string(900000, 'x') + "*/)"));
  all.push_back(sql("PRAGMA encoding = 'UTF-16le';" + kTables));
  all.push_back(sql("PRAGMA journal_mode = WAL;" + kTables));
  const std::string change = kTables + "PRAGMA writable_schema = 1; UPDATE sqlite_master SET ";
  all.push_back(sql(change + "rootpage = 1"));
  all.push_back(sql(change + "sql = hex(sql)"));
  all.push_back(sql(change + "name = 'po', tbl_name = 'po'"));
}

void add_bytes(Makers& all) {
  const std::string most(4, '\xff');
  // Page sizes, versions, reserved bytes, fractions, counts of pages, free lists, formats and codes
  // of every kind.
  for (const std::size_t offset : {0U, 16U, 18U, 20U, 21U, 28U, 32U, 44U, 52U, 56U}) {
    for (const auto& written : {most + most, "\0\1"s, "\0\3"s, "\2\0"s, "\2\2"s, "\7\7"s,
                                "\0\4\0\0"s, "\0\0\0\1\x7f\xff\xff\xff"s}) {
      all.push_back(bytes(offset, written));
    }
  }
  // Of several pages: cells outside, a child that is the page itself, claimed lengths.
  for (std::size_t page = 1; page < 30; ++page) {
    const std::string number(1, static_cast<char>(page + 1));
    all.push_back(bytes(page * 4096 + 3, most));
    all.push_back(bytes(page * 4096, "\5\0\0\0\1\x0f\xf0\0\0\0\0"s + number));
    all.push_back(bytes(page * 4096 + 3000, std::string(1000, '\x84')));
  }
}

void add_files(Makers& all) {
  all.emplace_back([](const std::string&) {});
  all.emplace_back([](const std::string& file) { mkfifo(file.c_str(), 0600); });
  all.emplace_back([](const std::string& file) { fs::create_directory(file); });
  all.emplace_back([](const std::string& file) { write_file(file, ""); });
  all.emplace_back([](const std::string& file) { write_file(file, "SQLite format 3"); });
  for (const auto& to : {"/dev/zero"s, "/dev/null"s, "/dev/tty"s, "gone"s, "."s, "ul.db"s}) {
    all.emplace_back([to](const std::string& file) { fs::create_symlink(to, file); });
  }
  all.emplace_back([](const std::string& file) {
    bytes(28, "\0\4\0\0"s)(file);
    fs::resize_file(file, 1 << 30);
  });
}

// What an operation may answer: done, no row, what SQLite says, an empty file, a damaged row, a
// content that is no entry, a file that is not made where one is, and rows that keep a file.
using Statuses = std::set<cr_status_t>;
const Statuses kSpecified = {CR_STATUS_OK,         CR_STATUS_NOT_FOUND, CR_STATUS_EXISTS,
                             CR_STATUS_FAILED,     CR_STATUS_BAD_ARG,   CR_STATUS_IO_ERROR,
                             CR_STATUS_BAD_DATA,   CR_STATUS_CORRUPT,   CR_STATUS_NONE,
                             CR_STATUS_BAD_RECORD, CR_STATUS_NOT_EMPTY};

Statuses use_everything(const std::string& root, const std::string& dir) {
  SQLitePODB po(root, dir);
  SQLiteULDB ul(dir, 0);
  FilePO entry(file_text("a", make_poid(1), 1, "/c/p"));
  UDCIDRecord list;
  std::set<std::string> poids = {"p"}, leaks = {"p"};
  POQueue out;
  std::vector<std::string> names;
  unsigned long n = 0;
  const auto take = [](const char*, UDCIDRecord*) { return CR_STATUS_OK; };
  Statuses all = {po.get("a", &entry), po.find_by_pattern("*", &out, true)};
  all.insert({po.find_by_cursor("", &names, 0), po.double_check(&poids, &out, &leaks, &n)});
  all.insert({po.put(&entry), po.del("a"), po.drop_db_if_empty(), ul.count(&n), ul.get_all(take)});
  all.insert({ul.get_one("p", take), ul.put("p", &list, nullptr), ul.del("p")});
  return all;
}

using HostileFiles = Lane;

TEST_F(HostileFiles, get_a_specified_answer_soon_and_with_little_memory) {
  double slowest = 0;
  sqlite3_int64 most = 0;
  Makers files;
  for (const auto add : {add_definitions, add_schemas, add_bytes, add_files}) add(files);
  EXPECT_GE(files.size(), 200U);
  for (std::size_t i = 0; i < files.size(); ++i) {
    for (const std::string name : {"/po.db", "/ul.db"}) {
      SCOPED_TRACE(testing::Message() << "file " << i << " as " << name);
      fs::remove_all(directory_);
      fs::create_directories(directory_);
      files[i](directory_ + name);
      sqlite3_memory_highwater(1);
      const std::clock_t start = std::clock();  // of the processor: others may keep it busy
      verify_finds_faults(root_.path());
      const Statuses statuses = use_everything(root_.path(), directory_);
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
  SQLitePODB db(root_.path(), directory_);
  store(db, "a", 1);
  must(db.close_db(0));
  std::fstream(db.get_dbfile_path(), std::ios::in | std::ios::out).seekp(4096 + 4) << '\0';
  EXPECT_EQ(db.drop_db_if_empty(), CR_STATUS_NOT_EMPTY);
}

// The same file hurts those who do not defend themselves.
TEST_F(HostileFiles, would_work_on_another_connection) {
  const char* const view = "CREATE VIEW po AS SELECT 'a' AS basename; SELECT * FROM po";
  EXPECT_EQ(run_sql(directory_ + "/po.db", view), SQLITE_OK);
  std::vector<std::string> names;
  EXPECT_EQ(SQLitePODB(root_.path(), directory_).find_by_cursor("", &names, 0), CR_STATUS_FAILED);
}

}  // namespace
