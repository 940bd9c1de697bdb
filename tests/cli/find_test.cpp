#include <algorithm>
#include <filesystem>
#include <fstream>

#include "cli/time_text.h"
#include "tests/cli/read_fixture.h"

namespace {

class FindTest : public CatalogTest {
 protected:
  void TearDown() override {
    refhost::set_case_sensitive(true);
    CatalogTest::TearDown();
  }

  Outcome find(std::vector<std::string> arguments) const {
    arguments.insert(arguments.begin(), {"find", root_});
    return run_command(arguments);
  }

  // The names that are found in the image's directory, with a blank after each.
  std::string names(const std::vector<std::string>& arguments) const {
    std::istringstream lines(find(arguments).out);
    std::string found;
    for (std::string line; std::getline(lines, line);) {
      EXPECT_EQ(line.substr(0, image_.size() + 1), image_ + "/");
      found += line.substr(image_.size() + 1) + ' ';
    }
    return found;
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
  const std::vector<std::pair<std::vector<std::string>, std::string>> cases = {
      {{"*"}, "a'b aXb a_b b% "},
      {{"a'b"}, "a'b "},
      {{"a?b"}, "a'b aXb a_b "},
      {{"a[_X]b"}, "aXb a_b "},
      {{"' OR '1'='1"}, ""},
      {{"*", "--poid", make_poid(2)}, "b% "},
      {{"*", "--size", ">100"}, "a_b b% "},
      {{"*", "--size", "<101"}, "a'b aXb "},
      {{"*", "--newer", "999"}, "a'b "},
      {{"*", "--newer", "1970-01-01T01:16:38+01:00"}, "a'b aXb a_b "},
      {{"*", "--newer", "-6", "--size", ">100", "--poid", make_poid(2)}, "b% "},
  };
  for (const auto& [arguments, found] : cases) {
    EXPECT_EQ(names(arguments), found) << arguments.back();
  }
}

TEST_F(FindTest, WhereNamesAreNotCaseSensitiveTheStarIsTheOnlyWildcard) {
  refhost::set_case_sensitive(false);
  for (const char* name : {"It's", "a_b", "aXb"}) add_file(name);
  EXPECT_EQ(names({"iT's"}), "It's ");
  EXPECT_EQ(names({"A_*"}), "a_b ");
  EXPECT_EQ(names({"a?b"}), "");
  EXPECT_EQ(find({std::string(2049, 'x')}).status, cli::kUsage);
}

TEST_F(FindTest, DirectoriesComeInByteOrderParentsFirst) {
  add_file("z");
  for (const char* below : {"/b", "/a", "/a/c"}) {
    add_directory(image_ + below);
    std::filesystem::copy_file(database(image_), database(image_ + below));
  }
  EXPECT_EQ(names({"z"}), "z a/z a/c/z b/z ");
  EXPECT_EQ(names({"z", "--under", image_ + "/a/"}), "a/z a/c/z ");
}

TEST_F(FindTest, PathsReachATerminalPrintableAndAPipeAsTheyAre) {
  const std::string name = "a\nb\xff";
  add_file(name);
  EXPECT_EQ(find({"*"}).out, image_ + "/a\\x0ab\\xff\n");
  EXPECT_EQ(find({"*", "-0"}).out, image_ + "/" + name + '\0');
}

// More matches than a page holds, among others that do not match.
TEST_F(FindTest, NothingIsLostBetweenPagesAndDamageIsNamed) {
  add_file("x");
  sql("WITH RECURSIVE n(i) AS (SELECT 1000 UNION ALL SELECT i + 1 FROM n WHERE i < 3399) INSERT "
      "INTO po SELECT CASE WHEN i % 2 THEN 'odd' ELSE 'even' END || i, poid, content, 0 FROM n, "
      "po");
  const Outcome outcome = find({"even*"});
  EXPECT_EQ(outcome.status, cli::kInconsistent);
  const auto reported = std::count(outcome.err.begin(), outcome.err.end(), '\n');
  EXPECT_EQ(reported, 1200);
  EXPECT_EQ(outcome.err.find("odd"), std::string::npos);
  std::ofstream(database(image_)) << std::string(5000, 'x');
  EXPECT_EQ(find({"*"}).status, cli::kInconsistent);
}

TEST_F(FindTest, WhatMakesNoSenseIsRefused) {
  using Arguments = std::vector<std::string>;
  for (const Arguments& arguments : {Arguments{"*", "--size", "<5k"},
                                     {"*", "--poid", "abc"},
                                     {"*", "--newer", "yesterday"},
                                     {"*", "--under", "../x"}}) {
    EXPECT_EQ(find(arguments).status, cli::kUsage) << arguments.back();
  }
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
      {"2023-02-29T00:00:00Z", {}},
      {"2023-11-14T22:13:20", {}},
      {"2023-11-14T22:13:20Zx", {}},
      {"99999999999999999999", {}},
      {"", {}},
  };
  for (const auto& [text, seconds] : cases) EXPECT_EQ(cli::parse_time(text), seconds) << text;
}

}  // namespace
