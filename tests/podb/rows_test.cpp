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
  EXPECT_EQ(db.del(names[2]), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(get(names[2]), CR_STATUS_NOT_FOUND);
  EXPECT_EQ(db.del(Names{names[1], "absent", names[4]}), CR_STATUS_OK);
  EXPECT_EQ(sql("SELECT * FROM po").size(), 2U);
}

// A statement of 2047 bytes is run; a longer one, which is cut there, fails.
TEST_F(Rows, may_be_as_long_as_their_statement) {
  std::size_t longest = 0;
  for (std::size_t length = 955; length < 975; ++length) {
    for (const std::uint64_t size : {1U, 10U}) {  // for even and odd lengths of the statement
      if (put("f", std::string(length, 'a'), size) != CR_STATUS_OK) continue;
      longest = std::max(longest, db.statements.back().size());
    }
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

}  // namespace
