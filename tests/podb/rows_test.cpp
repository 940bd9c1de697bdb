#include <stdexcept>

#include "fixture.h"

namespace {

using Rows = StoreTest;

// The schema and a row as every reader of these files knows them.
TEST_F(Rows, lie_in_the_file_as_they_always_have) {
  for (const bool sensitive : {false, true}) {
    start_afresh(sensitive);
    EXPECT_EQ(put("f", make_poid(1), 7), CR_STATUS_OK);
    const std::string collation = sensitive ? "" : "COLLATE NOCASE";
    EXPECT_EQ(sql("SELECT sql FROM sqlite_master WHERE sql NOT NULL ORDER BY rowid"),
              (RawRows{{"CREATE TABLE po (    basename TEXT " + collation +
                        " PRIMARY KEY,    poid TEXT,    content TEXT,    crc INT)"},
                       {"CREATE INDEX po_poid ON po(poid)"},
                       {"CREATE TABLE registry (    name TEXT PRIMARY KEY,    value TEXT)"}}));
    EXPECT_EQ(sql("SELECT * FROM registry"), (RawRows{{"db_version", "1"}}));
    EXPECT_EQ(
        sql("SELECT *, typeof(crc) FROM po"),
        (RawRows{{"f", make_poid(1),
                  "0|||0|" + make_poid(1) + "||||0|N|7|0100644|0||260|0|0|0|1024||||0|||0|64|0|0",
                  "1824277460", "integer"}}));
    EXPECT_EQ(put("F"), CR_STATUS_OK);
    EXPECT_EQ(sql("SELECT * FROM po").size(), sensitive ? 2U : 1U);
  }
}

TEST_F(Rows, of_any_name_are_stored_read_replaced_and_deleted) {
  const Names names = {"plain", "it's.txt", "x' OR '1'='1", "a|%\n\x7f\xff",
                       std::string(255, '\'')};
  for (const std::uint64_t size : {1U, 2U}) {
    for (const std::string& name : names) EXPECT_EQ(put(name, "", size), CR_STATUS_OK) << name;
  }
  for (const std::string& name : names) {
    FilePO entry(5);
    EXPECT_EQ(db.get(name, &entry), CR_STATUS_OK);
    EXPECT_EQ(text_of(entry.record()), "5" + file_text(name, "", 2, "/c/p").substr(1));
    EXPECT_TRUE(db.exists(name) && db.backupid_exists(name)) << name;
  }
  EXPECT_EQ(db.del(names[2]), CR_STATUS_OK);
  EXPECT_EQ(db.del(names[2]) + get(names[2]), 2 * CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.del(Names{names[1], "absent", names[4]}), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT * FROM po").size(), 2U);
}

// A statement of 2047 bytes is run; a longer one, which is cut there, fails.
TEST_F(Rows, may_be_as_long_as_their_statement) {
  std::size_t longest = 0;
  for (std::size_t length = 1910; length < 1950; ++length) {  // odd: with a longer size
    const cr_status_t status = put("f", std::string(length / 2, 'a'), length % 2 == 0 ? 1 : 10);
    if (status == CR_STATUS_OK) longest = std::max(longest, db.statements.back().size());
  }
  EXPECT_EQ(longest, 2047U);
  log.clear();
}

TEST_F(Rows, that_are_damaged_fail_alone_and_are_left_out_of_listings) {
  const std::pair<std::string, cr_status_t> cases[] = {
      {"crc = 1", -1}, {"poid = NULL", -1}, {"crc = crc", 103}};
  EXPECT_EQ(put("e") + put("g"), CR_STATUS_OK);
  for (const auto& [change, status] : cases) {
    sql("INSERT OR REPLACE INTO po VALUES ('f', '', 'some content', 603391286)");
    sql("UPDATE po SET " + change + " WHERE basename = 'f'");
    EXPECT_EQ(get("f"), status);
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_OK) << "the database could be read";
    POQueue found;
    EXPECT_EQ(db.find_by_pattern("*", &found, true), CR_STATUS_OK);
    EXPECT_EQ(names_of(found), (Names{"e", "g"}));
    log.clear();
  }
}

using Queries = StoreTest;

// Keeps names, and takes a passing handle to what it is handed.
class Visitor : public POProcessor {
 public:
  int process(PO* po) override {
    seen.push_back(names_of({boost::intrusive_ptr<PO>(po)})[0]);
    if (seen.back() == "100%") throw std::runtime_error("enough");
    return -1;  // without effect
  }
  Names seen;
};

TEST_F(Queries, find_by_pattern_as_file_names_are_compared) {
  const struct {
    bool sensitive;
    std::string pattern, condition;
    Names found;
  } cases[] = {{true, "a*", "GLOB 'a*'", {"aXb", "a_b"}},
               {true, "A*", "GLOB 'A*'", {}},
               {false, "A*", "LIKE 'A%' ESCAPE '\\'", {"a_b", "aXb"}},
               {false, "a*_B", "LIKE 'a%\\_B' ESCAPE '\\'", {"a_b"}},
               {false, "1a?%", "LIKE '1a?\\%' ESCAPE '\\'", {}}};
  for (const auto& c : cases) {
    start_afresh(c.sensitive);
    EXPECT_EQ(put("1000") + put("100%") + put("aXb") + put("a_b"), CR_STATUS_OK);
    POQueue found;
    Visitor visitor;
    db.statements.clear();
    EXPECT_EQ(db.find_by_pattern(c.pattern, &found, !c.sensitive), CR_STATUS_OK);
    EXPECT_EQ(db.process_by_pattern(c.pattern, &visitor), CR_STATUS_OK);
    EXPECT_EQ(names_of(found), c.found) << c.pattern;
    EXPECT_EQ(visitor.seen, c.found) << c.pattern;
    EXPECT_EQ(db.statements,
              Names(2, "SELECT basename, poid, content, crc FROM po WHERE basename " + c.condition +
                           "  ORDER BY basename ASC "));
  }
  Visitor visitor;
  EXPECT_EQ(db.process_by_pattern(std::string(2048, '_'), &visitor), CR_STATUS_OK);
  EXPECT_EQ(db.process_by_pattern(std::string(2049, '_'), &visitor), CR_STATUS_FAILED);
  log.clear();
  EXPECT_THROW(db.process_by_pattern("*", &visitor), std::runtime_error);
  EXPECT_EQ(put("the connection works on"), CR_STATUS_OK);
}

TEST_F(Queries, select_by_condition_order_limit_and_cursor) {
  EXPECT_EQ(put("a_b") + put("axb") + put("b"), CR_STATUS_OK);
  Names names;
  EXPECT_EQ(db.select_basenames(&names, "crc > 0", ORDER_DESCENDING, 2), CR_STATUS_OK);
  EXPECT_EQ(db.statements.back(),
            "SELECT basename FROM po WHERE crc > 0  ORDER BY basename DESC  LIMIT 2");
  EXPECT_EQ(db.find_by_cursor("a_b", &names, 1), CR_STATUS_OK);
  EXPECT_EQ(names, (Names{"b", "axb", "axb", "b"}));
  EXPECT_FALSE(db.backupid_exists("xb"));
}

TEST_F(Queries, double_check_in_batches_and_keep_what_no_row_uses) {
  EXPECT_EQ(put("first", make_poid(10000)) + put("last", make_poid(20240)), CR_STATUS_OK);
  EXPECT_EQ(put("damaged", make_poid(10001)), CR_STATUS_OK);
  sql("UPDATE po SET crc = 1 WHERE basename = 'damaged'");
  std::set<std::string> affected;
  for (std::uint64_t i = 0; i <= 10240; ++i) affected.insert(make_poid(10000 + i));
  std::set<std::string> leaks = affected;
  POQueue out;
  unsigned long found = 5;
  db.statements.clear();
  EXPECT_EQ(db.double_check(&affected, &out, &leaks, &found), CR_STATUS_OK);
  EXPECT_EQ(names_of(out), (Names{"first", "last"}));
  EXPECT_EQ(found, 8U);
  EXPECT_EQ(affected.size(), 10239U);
  EXPECT_EQ(leaks.size(), 10238U) << "a damaged row protects its data";
  db.failing = "SELECT poid";
  EXPECT_EQ(db.double_check(&affected, &out, &leaks, &found), CR_STATUS_BUSY);
  log.clear();
}

}  // namespace
