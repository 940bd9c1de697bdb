#include <array>
#include <atomic>
#include <boost/algorithm/string/erase.hpp>
#include <sstream>
#include <thread>

#include "podb/podb_pool.h"
#include "tests/podb/fixture.h"

namespace {

using Store = StoreTest;

// The schema and a row as every reader of these files knows them.
TEST_F(Store, keeps_rows_in_the_form_they_always_had) {
  for (const bool sensitive : {false, true}) {
    start_afresh(sensitive);
    EXPECT_EQ(put("f", make_poid(1), 7), CR_STATUS_OK);
    const std::string collation = sensitive ? "" : "COLLATE NOCASE";
    EXPECT_EQ(sql("SELECT sql FROM sqlite_master WHERE sql NOT NULL ORDER BY rowid"),
              (RawRows{{"CREATE TABLE po (    basename TEXT " + collation +
                        " PRIMARY KEY,    poid TEXT,    content TEXT,    crc INT)"},
                       {"CREATE INDEX po_poid ON po(poid)"},
                       {"CREATE TABLE registry (    name TEXT PRIMARY KEY,    value TEXT)"}}));
    EXPECT_EQ(
        sql("SELECT *, typeof(crc) FROM po JOIN registry"),
        (RawRows{{"f", make_poid(1),
                  "0|||0|" + make_poid(1) + "||||0|N|7|0100644|0||260|0|0|0|1024||||0|||0|64|0|0",
                  "1824277460", "db_version", "1", "integer"}}));
    EXPECT_EQ(put("F"), CR_STATUS_OK);
    EXPECT_EQ(sql("SELECT * FROM po").size(), sensitive ? 2U : 1U);
  }
}

// A leftover of a crash is no database; a foreign file is damaged, not empty.
TEST_F(Store, is_made_by_writes_alone_and_an_unusable_one_is_neither_read_nor_replaced) {
  const std::tuple<const char*, cr_status_t, cr_status_t, cr_status_t, cr_status_t> cases[] = {
      {nullptr, 2, 2, 0, 2}, {"", 32, 2, 0, 2}, {"this is no database", 67, 67, 67, 119}};
  POQueue found;
  Names names;
  std::set<std::string> poids = {"p"};
  unsigned long n = 0;
  for (const auto& [content, write, read, listing, drop] : cases) {
    if (content != nullptr) write_file(file, content);
    EXPECT_EQ(content != nullptr ? put("f") + db.begin_transaction() : 2 * db.del("f"), 2 * write);
    EXPECT_EQ(db.count(&n) + db.find_by_cursor("", &names, 0) + db.get_basenames(&names), 3 * read);
    EXPECT_EQ(db.double_check(&poids, &found, &poids, &n), content != nullptr ? write : 0);
    EXPECT_FALSE(db.exists("f") || db.potable_exists() || db.backupid_exists("f"));
    EXPECT_EQ(get("f"), read);
    EXPECT_EQ(*__cr_errno_location(), write);
    EXPECT_EQ(db.find_by_pattern("*", &found, false), listing);
    EXPECT_EQ(db.drop_db_if_empty(), drop);
    EXPECT_EQ(read_file(file), content != nullptr ? content : "");
  }
  log.clear();
}

// SQLite rolls back by itself on a full disk: what follows must not be stored piece by piece.
TEST_F(Store, refuses_writes_after_a_lost_transaction_until_it_is_rolled_back) {
  EXPECT_EQ(put("f") + db.begin_transaction() + put("g"), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction(), CR_STATUS_FAILED) << "they do not nest";
  EXPECT_EQ(db.exec_sql("ROLLBACK", nullptr), CR_STATUS_OK);
  EXPECT_EQ(put("alone") + db.del("f"), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(db.commit_transaction() + db.begin_transaction(), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(db.rollback_transaction(), CR_STATUS_OK);
  EXPECT_EQ(db.begin_transaction() + put("h") + db.commit_transaction(), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT basename FROM po"), (RawRows{{"f"}, {"h"}}));
  log.clear();
}

TEST_F(Store, may_be_used_first_by_many_threads) {
  SQLitePODB shared(root.path(), dir);
  const auto use = [&] { EXPECT_EQ(shared.check_db_existence(true), CR_STATUS_OK); };
  std::vector<std::thread> threads(8);
  for (std::thread& thread : threads) thread = std::thread(use);
  for (std::thread& thread : threads) thread.join();
}

// A statement of 2047 bytes is run; a longer one, which is cut there, fails.
TEST_F(Store, takes_rows_as_long_as_their_statement) {
  std::size_t longest = 0;
  for (std::size_t length = 1910; length < 1950; ++length) {  // odd: with a longer size
    const cr_status_t status = put("f", std::string(length / 2, 'a'), length % 2 == 0 ? 1 : 10);
    if (status == CR_STATUS_OK) longest = std::max(longest, db.statements.back().size());
  }
  EXPECT_EQ(longest, 2047U);
  log.clear();
}

TEST_F(Store, leaves_damaged_rows_out_of_listings_and_keeps_what_they_may_use) {
  EXPECT_EQ(put("first", make_poid(10000)) + put("last", make_poid(20240)), CR_STATUS_OK);
  EXPECT_EQ(put("damaged", make_poid(10001)), CR_STATUS_OK);
  sql("UPDATE po SET crc = 1 WHERE basename = 'damaged'");
  EXPECT_EQ(get("damaged"), -1);
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_OK) << "the database could be read";
  POQueue found;
  EXPECT_EQ(db.find_by_pattern("*", &found, true), CR_STATUS_OK);
  std::set<std::string> affected;
  for (std::uint64_t i = 0; i <= 10240; ++i) affected.insert(make_poid(10000 + i));
  std::set<std::string> leaks = affected;
  unsigned long users = 0;
  EXPECT_EQ(db.double_check(&affected, &found, &leaks, &users), CR_STATUS_OK);
  EXPECT_EQ(names_of(found), (Names{"first", "last", "first", "last"}));
  EXPECT_EQ(users, 3U);
  sql("UPDATE po SET poid = NULL WHERE basename = 'damaged'");
  EXPECT_EQ(get("damaged"), -1);
  EXPECT_EQ(leaks.size(), 10238U) << "a damaged row protects its data";
  log.clear();
}

TEST_F(Store, trusts_no_damaged_schema_or_index) {
  const std::string edit = "PRAGMA writable_schema = 1; ";
  std::string value;
  EXPECT_EQ(db.get_property("f", &value) + db.set_property("f", "") + db.exec_sql("", nullptr), 6);
  EXPECT_EQ(put("f "), CR_STATUS_OK);
  sql(edit + "UPDATE sqlite_master SET sql = replace(sql, 'TEXT  P', 'TEXT COLLATE RTRIM P')");
  db.close_db(0), log.clear();
  EXPECT_TRUE(get("f") == CR_STATUS_CORRUPT && *__cr_errno_location() == CR_STATUS_CORRUPT);
  log.expect_error(CR_STATUS_CORRUPT, "The index of names leads f to the row of f ");
  sql("DELETE FROM po;" + edit + "DELETE FROM sqlite_master WHERE name = 'po_poid'");
  db.close_db(0);
  EXPECT_EQ(db.drop_db_if_empty(), CR_STATUS_NOT_EMPTY) << "its rows may only seem to be gone";
  log.clear();
}

TEST_F(Store, finds_by_pattern_as_file_names_are_compared) {
  const std::tuple<bool, std::string, std::string, Names> cases[] = {
      {true, "a*", "GLOB 'a*'", {"aXb", "a_b"}},
      {false, "a*_B", "LIKE 'a%\\_B' ESCAPE '\\'", {"a_b"}},
      {false, std::string("a*\0b", 4), "LIKE 'a%' ESCAPE '\\'", {"a_b", "aXb"}},
      {false, "1a?%", "LIKE '1a?\\%' ESCAPE '\\'", {}}};
  for (const auto& [sensitive, pattern, condition, entries] : cases) {
    start_afresh(sensitive);
    EXPECT_EQ(put("1000") + put("100%") + put("aXb") + put("a_b"), CR_STATUS_OK);
    POQueue found;
    EXPECT_EQ(db.find_by_pattern(pattern, &found, !sensitive), CR_STATUS_OK);
    EXPECT_EQ(names_of(found), entries) << pattern;
    EXPECT_EQ(db.statements.back(), "SELECT basename, poid, content, crc FROM po WHERE basename " +
                                        condition + "  ORDER BY basename ASC ");
  }
}

TEST_F(Store, refuses_missing_arguments_and_selects_as_it_is_told) {
  POQueue q;
  Names names;
  std::set<std::string> set;
  unsigned long n = 0;
  EXPECT_EQ(db.put(nullptr) + db.get("f", nullptr) + db.count(nullptr) + put(""), 4 * 9);
  EXPECT_EQ(db.select({}, nullptr, nullptr) + db.find_by_cursor("", nullptr, 0), 2 * 9);
  EXPECT_EQ(db.process_by_pattern("*", nullptr) + db.get_property("", nullptr), 18);
  EXPECT_EQ(db.double_check(nullptr, &q, &set, &n) + db.double_check(&set, nullptr, &set, &n), 18);
  EXPECT_EQ(db.double_check(&set, &q, nullptr, &n) + db.double_check(&set, &q, &set, nullptr), 18);
  tolvfs_worm_info_t info{};
  EXPECT_EQ(db.PODB::get("", nullptr) + db.PODB::del("", "") + db.PODB::get_retention("", info) +
                db.PODB::process_by_pattern("", nullptr) + db.PODB::set_retention("", 0, 0) +
                db.PODB::immutable_catalog_query("", nullptr, true) +
                db.PODB::select({}, nullptr, nullptr),
            7 * CR_STATUS_NOT_PROVIDED);
  EXPECT_EQ(db.PODB::drop_db_if_empty() + db.PODB::close_db(0), CR_STATUS_NOT_EMPTY);
  EXPECT_EQ(db.PODB::get_dbfile_path() + db.PODB::get_db_dir(), "");
  EXPECT_EQ(db.get_podb_ops().reads + db.get_uldb_ops().reads + db.PODB::db_integrity_OK(), 0U);
  EXPECT_EQ(put("e") + put("f") + put("g") + db.set_property("it's", "'1'"), CR_STATUS_OK);
  std::string value;
  EXPECT_EQ(db.get_property("none", &value) + db.get_property("it's", &value), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.rollback_transaction() + db.open() + db.checkopen(), CR_STATUS_OK);
  EXPECT_EQ(db.select_basenames(&names, "crc > 0", ORDER_DESCENDING, 2), CR_STATUS_OK);
  EXPECT_EQ(db.find_by_cursor("e", &names, 1) + db.del(Names{"e", "absent"}), CR_STATUS_OK);
  EXPECT_EQ(db.select_basenames(&names, "0; SELECT 1, 2 --", ORDER_ASCENDING, 0), 4) << "2 columns";
  EXPECT_EQ(db.del(Names{}), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(names, (Names{"g", "f", "f", "g"}));
  EXPECT_TRUE(db.exists("f") && db.backupid_exists("f") && !db.backupid_exists("x") &&
              db.potable_exists());
  refhost::set_case_sensitive(false);
  EXPECT_EQ(db.find_by_pattern(std::string(2049, '_'), &q, true), CR_STATUS_FAILED);
  log.clear();
}

// Its databases cannot be closed; of a directory "none" there is none.
struct StuckFactory : PODBFactory {
  struct Stuck : SQLitePODB {
    using SQLitePODB::SQLitePODB;
    cr_status_t close_db(unsigned int) override { return CR_STATUS_BUSY; }
  };
  std::shared_ptr<PODB> create_podb(const std::string& root, const std::string& dir) override {
    return getbasename(dir) == "none" ? nullptr : std::make_shared<Stuck>(root, dir);
  }
};

constexpr hrtime_t kIdle = 301'000'000'000;

class PodbPool : public testing::Test {
 protected:
  PodbPool() { pool.init(root.path(), new SQLitePODBFactory); }
  void TearDown() override { refhost::set_case_sensitive(true), refhost::use_real_clock(); }
  std::shared_ptr<PODB> database(const std::string& name) { return pool.get_podb(root.path(name)); }
  std::string printed() {
    std::ostringstream out;
    pool.print(out);
    return boost::algorithm::erase_all_copy(out.str(), root.path());
  }

  LogCapture log;
  const TempDir root;
  PODBPool pool{2};
};

TEST_F(PodbPool, lets_go_of_databases_idle_for_more_than_300_seconds_when_it_is_full) {
  refhost::set_clock(0);
  auto held = database("a");
  EXPECT_EQ(database("b")->begin_transaction(), CR_STATUS_OK);
  database("c");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/c,1) \n") << "grows while its databases are busy";
  refhost::set_clock(kIdle - 1'000'000'000);
  database("d");
  refhost::set_clock(kIdle);
  EXPECT_EQ(database("a"), held);
  EXPECT_EQ(pool.get_item_count(), 4U) << "neither 300 seconds nor a look-up reclaim";
  database("e");
  EXPECT_EQ(printed(), "(/a,2) (/b,1) (/d,1) (/e,1) \n");
  held.reset(), pool.commit_all();
  refhost::advance_clock(2 * kIdle);
  pool.reclaim();
  EXPECT_EQ(printed(), "\n");
}

TEST_F(PodbPool, tells_of_a_store_that_fails) {
  const auto lost = std::static_pointer_cast<SQLitePODB>(database("c"));
  EXPECT_EQ(lost->begin_transaction() + lost->exec_sql("ROLLBACK", nullptr), CR_STATUS_OK);
  EXPECT_EQ(pool.commit_all() + pool.close_podb(root.path("c"), 0) + pool.close_all(),
            CR_STATUS_FAILED);
  log.clear();
  PODBPool other(1);
  EXPECT_THROW(other.exists_po(root.path("none/f")), std::logic_error);
  other.init(root.path(), new StuckFactory);
  EXPECT_FALSE(other.exists_po(root.path("none/f")));
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_FAILED);
  EXPECT_EQ(other.close_all() + other.commit_all() + other.close_podb(root.path("none"), 0), 0);
  EXPECT_FALSE(other.exists_po(root.path("c/f")));
  EXPECT_EQ(other.close_all() + other.close_podb(root.path("d"), 0), CR_STATUS_BUSY);
  log.expect_error(CR_STATUS_BUSY, "Failed to close database " + root.path("c"));
}

// Writers take turns at a directory, which has two spellings; the pool, at the directories of
// others, does not.
TEST_F(PodbPool, loses_no_row_of_threads_that_share_more_directories_than_it_holds) {
  constexpr unsigned long kDirs = 12, kWriters = 8;
  std::array<std::mutex, kDirs> turns;
  std::atomic<unsigned long> leaves{0};
  refhost::set_case_sensitive(false);
  const auto write_everywhere = [&](unsigned long first) {
    for (unsigned long i = first; i < first + kDirs; ++i) {
      const std::lock_guard<std::mutex> turn(turns[i % kDirs]);
      const auto shared = database("d" + std::to_string(i % kDirs));
      EXPECT_EQ(database("D" + std::to_string(i % kDirs)), shared);
      FilePO entry(file_text(std::to_string(++leaves)));
      EXPECT_EQ(shared->begin_transaction() + shared->put(&entry) + shared->commit_transaction(),
                0);
      refhost::advance_clock(kIdle);
    }
  };
  write_everywhere(0);
  std::vector<std::thread> threads;
  for (unsigned long w = 0; w < kWriters; ++w) threads.emplace_back(write_everywhere, w * 5);
  for (std::thread& thread : threads) thread.join();
  EXPECT_LT(pool.get_item_count(), kDirs) << "nothing was reclaimed";
  for (unsigned long i = 0; i < kDirs; ++i) {
    unsigned long n = 0;
    EXPECT_EQ(database("d" + std::to_string(i))->count(&n), CR_STATUS_OK);
    EXPECT_EQ(n, 1 + kWriters);
  }
}

}  // namespace
