#include <stdexcept>

#include "fixture.h"

namespace {

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
