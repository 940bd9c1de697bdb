#include <stdexcept>
#include <thread>

#include "fixture.h"

namespace {

using Queries = StoreTest;

// Keeps names, and takes a passing handle to what it is handed.
class Visitor : public POProcessor {
 public:
  int process(PO* po) override {
    seen.push_back(names_of({boost::intrusive_ptr<PO>(po)})[0]);
    if (throws) throw std::runtime_error("enough");
    return -1;  // without effect
  }
  Names seen;
  bool throws = false;
};

TEST_F(Queries, find_by_pattern_as_file_names_are_compared) {
  const struct {
    bool sensitive;
    std::string pattern, condition;
    Names found;
  } cases[] = {{true, "a*", "GLOB 'a*'", {"aXb", "a_b"}},
               {true, "A*", "GLOB 'A*'", {}},
               {true, "a?b", "GLOB 'a?b'", {"aXb", "a_b"}},
               {false, "A*", "LIKE 'A%' ESCAPE '\\'", {"a_b", "aXb"}},
               {false, "a*_B", "LIKE 'a%\\_B' ESCAPE '\\'", {"a_b"}},
               {false, "100%", "LIKE '100\\%' ESCAPE '\\'", {"100%"}},
               {false, "a?b", "LIKE 'a?b' ESCAPE '\\'", {}}};
  for (const bool sensitive : {true, false}) {
    refhost::set_case_sensitive(sensitive);
    EXPECT_EQ(put("1000") + put("100%") + put("aXb") + put("a_b"), CR_STATUS_OK);
    for (const auto& c : cases) {
      if (c.sensitive != sensitive) continue;
      POQueue found;
      Visitor visitor;
      db.statements.clear();
      EXPECT_EQ(db.find_by_pattern(c.pattern, &found, !sensitive), CR_STATUS_OK);
      EXPECT_EQ(db.process_by_pattern(c.pattern, &visitor), CR_STATUS_OK);
      EXPECT_EQ(names_of(found), c.found) << c.pattern;
      EXPECT_EQ(visitor.seen, c.found) << c.pattern;
      EXPECT_EQ(db.statements,
                Names(2, "SELECT basename, poid, content, crc FROM po WHERE basename " +
                             c.condition + "  ORDER BY basename ASC "));
    }
    db.close_db(0);
    std::filesystem::remove(file);
  }
}

TEST_F(Queries, patterns_end_at_2048_bytes) {
  std::string escaped;
  POQueue found;
  EXPECT_EQ(SpyPODB::PatternEscape(std::string(2048, '_'), escaped), CR_STATUS_OK);
  EXPECT_EQ(SpyPODB::PatternEscape(std::string(2049, '_'), escaped), CR_STATUS_BAD_ARG);
  EXPECT_EQ(escaped.size(), 4096U);
  refhost::set_case_sensitive(false);
  EXPECT_EQ(db.find_by_pattern(std::string(2049, '_'), &found, true), CR_STATUS_FAILED);
  log.clear();
}

TEST_F(Queries, select_by_condition_order_limit_and_cursor) {
  EXPECT_EQ(put("a_b") + put("axb") + put("b"), CR_STATUS_OK);
  QueryParams q;
  q.where = "crc > 0";
  q.order = ORDER_DESCENDING;
  q.limit = 2;
  Names names = {"kept"};
  POQueue entries;
  EXPECT_EQ(db.select(q, &names, &entries), CR_STATUS_OK);
  EXPECT_EQ(db.statements.back(),
            "SELECT basename FROM po WHERE crc > 0  ORDER BY basename DESC  LIMIT 2");
  EXPECT_TRUE(entries.empty());
  EXPECT_EQ(db.select(q, nullptr, &entries), CR_STATUS_OK);
  EXPECT_EQ(names_of(entries), (Names{"b", "axb"}));
  EXPECT_EQ(entries[0]->get_dsid(), 5U);
  EXPECT_EQ(db.select(q, nullptr, nullptr), CR_STATUS_BAD_ARG);
  EXPECT_EQ(db.find_by_cursor("a_b", &names, 1), CR_STATUS_OK);
  EXPECT_EQ(names, (Names{"kept", "b", "axb", "axb", "b"}));
  EXPECT_EQ(db.select_basenames(&names, "", static_cast<OrderType>(3), 0), CR_STATUS_OK);
  EXPECT_EQ(db.statements.back(), "SELECT basename FROM po");
  EXPECT_TRUE(db.backupid_exists("_x"));
  EXPECT_FALSE(db.backupid_exists("xb"));
}

TEST_F(Queries, a_visitor_may_throw_and_the_connection_works_on_from_any_thread) {
  EXPECT_EQ(put("a") + put("b"), CR_STATUS_OK);
  Visitor visitor;
  visitor.throws = true;
  EXPECT_THROW(db.process_by_pattern("*", &visitor), std::runtime_error);
  std::thread([&] { EXPECT_EQ(put("c"), CR_STATUS_OK); }).join();
  visitor.throws = false;
  EXPECT_EQ(db.process_by_pattern("*", &visitor), CR_STATUS_OK);
  EXPECT_EQ(visitor.seen, (Names{"a", "a", "b", "c"}));
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
  EXPECT_EQ(db.count_of("SELECT poid"), 2);
  EXPECT_EQ(db.statements[1], "SELECT basename, poid, content, crc FROM po WHERE poid IN ('" +
                                  make_poid(20240) + "','placeholder')");
  log.clear();
  db.failing = "SELECT basename";
  EXPECT_EQ(db.double_check(&affected, &out, &leaks, &found), CR_STATUS_OK);
  log.expect_error(CR_STATUS_BUSY, dir + ": failed to double check affected POs");
  db.failing = "SELECT poid";
  EXPECT_EQ(db.double_check(&affected, &out, &leaks, &found), CR_STATUS_BUSY);
  log.clear();
}

}  // namespace
