#include <algorithm>

#include "cli/time_text.h"
#include "tests/cli/read_fixture.h"

namespace {

class FindTest : public CatalogTest {
 protected:
  void TearDown() override {
    refhost::set_case_sensitive(true);
    CatalogTest::TearDown();
  }

  Outcome find(const std::string& pattern, const std::string& conditions = "") const {
    return command("find " + root_ + " " + conditions + " --", {pattern});
  }

  // The names that are found in the image's directory, with a blank after each.
  std::string found(const std::string& pattern, const std::string& conditions = "") const {
    std::istringstream lines(find(pattern, conditions).out);
    std::string all;
    for (std::string line; std::getline(lines, line);) {
      EXPECT_EQ(line.substr(0, image_.size() + 1), image_ + "/");
      all += line.substr(image_.size() + 1) + ' ';
    }
    return all;
  }
};

TEST_F(FindTest, EveryConditionNarrowsTheSearch) {
  refhost::RecordFields fields = file_fields("", make_poid(1), 100);
  fields.mtime = 1000;
  add_file("a'b", fields);
  fields.mtime = 999;
  add_file("aXb", fields);
  fields.size = 101;
  add_file("a_b", fields);
  fields.poid = make_poid(2);
  fields.mtime = static_cast<std::uint64_t>(-5);  // 1969
  add_file("b%", fields);
  EXPECT_EQ(found("*"), "a'b aXb a_b b% ");
  EXPECT_EQ(found("a'b"), "a'b ");
  EXPECT_EQ(found("a?b"), "a'b aXb a_b ");
  EXPECT_EQ(found("a[_X]b"), "aXb a_b ");
  EXPECT_EQ(found("' OR '1'='1"), "");
  EXPECT_EQ(found("*", "--poid " + make_poid(2)), "b% ");
  EXPECT_EQ(found("*", "--size >100"), "a_b b% ");
  EXPECT_EQ(found("*", "--size <101"), "a'b aXb ");
  EXPECT_EQ(found("*", "--newer 999"), "a'b ");
  EXPECT_EQ(found("*", "--newer 1970-01-01T01:16:38+01:00"), "a'b aXb a_b ");
  EXPECT_EQ(found("*", "--newer -6 --size >100 --poid " + make_poid(2)), "b% ");
}

TEST_F(FindTest, WhereNamesAreNotCaseSensitiveTheStarIsTheOnlyWildcard) {
  refhost::set_case_sensitive(false);
  for (const char* name : {"It's", "a_b", "aXb"}) add_file(name);
  EXPECT_EQ(found("iT's"), "It's ");
  EXPECT_EQ(found("A_*"), "a_b ");
  EXPECT_EQ(found("a?b"), "");
  EXPECT_EQ(find(std::string(2049, 'x')).status, cli::kUsage);
}

TEST_F(FindTest, PathsComeInByteOrderPrintableToATerminalAndAsTheyAreToAPipe) {
  const std::string name = "a\nb\xff";
  add_file(name);
  EXPECT_EQ(find("*").out, image_ + "/a\\x0ab\\xff\n");
  EXPECT_EQ(find("*", "-0").out, image_ + "/" + name + '\0');
  add_file("z");
  for (const char* below : {"/b", "/a", "/a/c"}) {
    add_directory(image_ + below);
    fs::copy_file(database(image_), database(image_ + below));
  }
  EXPECT_EQ(found("z"), "z a/z a/c/z b/z ");
  EXPECT_EQ(found("z", "--under " + image_ + "/a/"), "a/z a/c/z ");
}

// More matches than a page holds, among others that do not match.
TEST_F(FindTest, NothingIsLostBetweenPagesAndDamageIsNamed) {
  add_file("x");
  sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 3399) INSERT "
      "INTO po SELECT CASE WHEN i % 2 THEN 'odd' ELSE 'even' END || i, poid, content, 0 FROM n, "
      "po");
  const Outcome outcome = find("even*");
  EXPECT_EQ(outcome.status, cli::kInconsistent);
  EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1200);
  EXPECT_EQ(outcome.err.find("odd"), std::string::npos);
  write_file(database(image_), std::string(5000, 'x'));
  EXPECT_EQ(find("*").status, cli::kInconsistent);
}

TEST(TimeText, IsRfc3339OrSeconds) {
  const std::vector<std::pair<std::string, std::optional<std::int64_t>>> cases = {
      {"0", 0},
      {"-1", -1},
      {"2023-11-14T22:13:20Z", 1700000000},
      {"2023-11-15 00:43:20.75+02:30", 1700000000},
      {"1969-12-31T23:59:59Z", -1},
      {"2024-02-29T00:00:00Z", 1709164800},
      {"2016-12-31T23:59:60Z", 1483228800},
  };
  for (const auto& [text, seconds] : cases) EXPECT_EQ(cli::parse_time(text), seconds) << text;
  for (const char* text : {"2023-02-29T00:00:00Z", "2023-11-14T22:13:20", "2023-11-14T22:13:20Zx",
                           "99999999999999999999", ""}) {
    EXPECT_FALSE(cli::parse_time(text)) << text;
  }
}

}  // namespace
