#include <fmt/format.h>
#include <sys/stat.h>

#include <cstring>
#include <set>

#include "tests/cli/digests.h"
#include "tests/cli/ingest_fixture.h"

namespace {

namespace fs = std::filesystem;

// The 29 fields of a record without location, for what lies at `path`.
std::string record_text(int type, const std::string& poid, const std::string& path) {
  struct stat at {};
  EXPECT_EQ(stat(path.c_str(), &at), 0) << path;
  const auto size = type == PO_TYPE_FILE ? at.st_size : 0;
  return fmt::format("0|||{}|{}|{}|||0|N|{}|0{:o}|0|{}:{}|260|{}|{}|0|1024||||0|||0|64|0|0", type,
                     poid, poid, size, at.st_mode, at.st_uid, at.st_gid, at.st_mtime, at.st_ctime);
}

// What programs tend to break on.
const std::vector<std::string> kOddNames = {
    "it's.txt", "x' OR '1'='1", "a|b|c", "new\nline", "%41",  "%",  " blank ", "\xff\xfe",
    "...",      "-rf",          "'",     "\xc3\xa9",  "\x01", "\"", "\\",      "* ? [a]"};

TEST_F(IngestTest, AnIndependentReaderFindsEveryFileAsItIs) {
  const std::map<std::string, std::string> tree = {{"empty", ""},
                                                   {"po.db", "a file of that name"},
                                                   {"a/b/deep", "x"},
                                                   {"big", std::string(300000, 'q')}};
  for (const auto& [name, content] : tree) write(name, content);
  EXPECT_EQ(ingest(cli::kDone), (Counters{4, 0, 0, 0, 0}));
  EXPECT_EQ(counters(), (Counters{300020, 4, 4, 0}));

  for (const auto& [name, content] : tree) {
    const fs::path path(name);
    const std::string inner = path.has_parent_path() ? "/" + path.parent_path().string() : "";
    const RawRows found = rows(inner, "SELECT poid, content, crc FROM po WHERE basename = '" +
                                          path.filename().string() + "'");
    ASSERT_EQ(found.size(), 1U) << name;
    const std::string poid = content.empty() ? "" : sha256_hex(content);
    EXPECT_EQ(found[0][0], poid);
    const std::string row = path.filename().string() + poid + found[0][1];
    EXPECT_EQ(found[0][2], std::to_string(plain_adler32(row)));
    EXPECT_EQ(found[0][1], record_text(PO_TYPE_FILE, poid, (fs::path(source_) / path).string()));
  }
  for (const std::string inner : {"", "/a", "/a/b"}) {
    EXPECT_EQ(read(image_ + inner + "/__dirpo__"), record_text(PO_TYPE_DIR, "", source_ + inner));
  }
}

TEST_F(IngestTest, ASecondRunChangesNoByteAndALaterOneExactlyWhatChanged) {
  write("same", "same");
  write("changed", "old");
  write("sub/gone", "12345");
  write("sub/below/gone too", "x");
  write("was a directory/file", "x");
  EXPECT_EQ(ingest(cli::kDone), (Counters{5, 0, 0, 0, 0}));
  const auto before = snapshot();
  EXPECT_EQ(ingest(cli::kDone, {"--delete"}), (Counters{0, 0, 5, 0, 0}));
  EXPECT_EQ(snapshot(), before);

  const RawRows same = rows("", "SELECT * FROM po WHERE basename = 'same'");
  write("changed", "newer");
  write("new", "");
  fs::remove_all(source_ + "/sub");
  fs::remove_all(source_ + "/was a directory");
  write("was a directory", "yy");
  EXPECT_EQ(ingest(cli::kDone), (Counters{2, 1, 1, 0, 0}));
  EXPECT_EQ(names("/sub"), std::vector<std::string>{"gone"});
  EXPECT_EQ(counters(), (Counters{4 + 5 + 5 + 1 + 1 + 2, 5, 7, 0}));

  fs::remove(source_ + "/changed");
  EXPECT_EQ(ingest(cli::kDone, {"--delete"}), (Counters{0, 0, 3, 4, 0}));
  EXPECT_EQ(names(), (std::vector<std::string>{"new", "same", "was a directory"}));
  EXPECT_FALSE(fs::exists(image_ + "/sub") || fs::exists(image_ + "/was a directory"));
  EXPECT_EQ(rows("", "SELECT * FROM po WHERE basename = 'same'"), same);
  EXPECT_EQ(counters(), (Counters{6, 2, 3, 0}));
}

TEST_F(IngestTest, HostileNamesAreAddedReplacedAndRemovedByteForByte) {
  std::set<std::string> hostile(kOddNames.begin(), kOddNames.end());
  hostile.insert({std::string(255, 'n'), std::string(255, '\'')});
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') hostile.emplace(1, static_cast<char>(byte));
  }
  std::string below = "dd";  // a directory of each odd name, one in the other
  for (const std::string& name : kOddNames) below.append("/").append(name);
  const auto write_all = [&](const std::string& content) {
    for (const std::string& name : hostile) write(name, content);
    for (const std::string& name : hostile) write(fs::path(below) / name, content);
  };
  const std::vector<std::string> expected(hostile.begin(), hostile.end());
  const std::uint64_t files = 2 * expected.size();
  write_all("a");
  EXPECT_EQ(ingest(cli::kDone), (Counters{files, 0, 0, 0, 0}));
  EXPECT_EQ(names(), expected);
  write_all("bb");
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, files, 0, 0, 0}));
  EXPECT_EQ(names("/" + below), expected);
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, 0, files, 0, 0}));
  fs::remove_all(source_);
  fs::create_directory(source_);
  EXPECT_EQ(ingest(cli::kDone, {"--delete"}), (Counters{0, 0, 0, files, 0}));
  EXPECT_EQ(names(), std::vector<std::string>{});
  EXPECT_EQ(counters(), (Counters{0, 2, 0, 0}));
}

TEST_F(IngestTest, WhatIsNoFileOrDirectoryIsCountedAndTheCatalogItselfLeftOut) {
  write("file", "x");
  fs::create_symlink("file", source_ + "/link");
  fs::create_directory_symlink("/", source_ + "/link to a directory");
  ASSERT_EQ(mkfifo((source_ + "/pipe").c_str(), 0600), 0);
  const std::vector<std::string> inside = {
      "--json",   "ingest", source_,    "--root", source_ + "/c/catalog", "--dsid", "5",
      "--client", "client", "--policy", "policy"};
  for (const int unchanged : {0, 1}) {
    const Outcome outcome = run_command(inside);
    EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
    const nlohmann::json summary = outcome.json().at(0);
    EXPECT_EQ(summary["unchanged"], unchanged);
    EXPECT_EQ(summary["directories"], 2);
    EXPECT_EQ(
        summary["skipped"],
        nlohmann::json::parse(R"({"links":2,"sockets":0,"pipes":1,"devices":0,"catalog":1})"));
  }
  std::vector<std::string> reversed = inside;
  for (const char* below : {"/c/catalog", "/c/catalog/5/client"}) {
    reversed[2] = source_ + below;
    EXPECT_EQ(run_command(reversed).status, cli::kUsage);
  }
}

TEST_F(IngestTest, DirectoriesThatACatalogCannotHoldAreReportedAndSkipped) {
  write("po.db/lost", "x");
  write("__dirpo__/lost", "x");
  write("fits", "x");
  // One directory whose database has the longest path that SQLite opens, one a byte longer.
  const std::size_t room = 504 - image_.size() - std::string("/po.db").size();
  std::string longest = "/" + std::string(200, 'd') + "/";
  longest.append(room - longest.size(), 'd');
  write(longest + "/fits", "x");
  write(longest + "d/lost", "x");
  EXPECT_EQ(ingest(cli::kIncomplete, {"--delete"}), (Counters{2, 0, 0, 0, 3}));
  EXPECT_EQ(names(longest), std::vector<std::string>{"fits"});
  EXPECT_FALSE(fs::exists(image_ + longest + "d"));
}

TEST_F(IngestTest, WithoutContentsSizeAndTimeTellWhatChanged) {
  write("read", "content");
  ingest(cli::kDone);
  write("not read", "content");
  EXPECT_EQ(ingest(cli::kDone, {"--no-content"}), (Counters{1, 0, 1, 0, 0}));
  const std::string poids = "SELECT basename, poid FROM po ORDER BY basename";
  EXPECT_EQ(rows("", poids), (RawRows{{"not read", ""}, {"read", sha256_hex("content")}}));
  write("read", "another content");
  EXPECT_EQ(ingest(cli::kDone, {"--no-content"}), (Counters{0, 1, 1, 0, 0}));
  EXPECT_EQ(rows("", poids), (RawRows{{"not read", ""}, {"read", ""}}));
}

TEST_F(IngestTest, WrongArgumentsAreRefusedBeforeAnythingIsMade) {
  for (const char* wrong :
       {"--dsid=0", "--dsid=4294967296", "--dsid=010", "--client=", "--policy=..", "--client=a/b",
        "--policy=__dirpo__", "--client=__dsinfo__.lock"}) {
    std::map<std::string, std::string> options = {
        {"--dsid", "--dsid=5"}, {"--client", "--client=c"}, {"--policy", "--policy=p"}};
    options[std::string(wrong, std::strchr(wrong, '='))] = wrong;
    const Outcome outcome = run_command({"ingest", source_, "--root", root_, options["--dsid"],
                                         options["--client"], options["--policy"]});
    EXPECT_EQ(outcome.status, cli::kUsage) << wrong;
  }
  EXPECT_FALSE(fs::exists(root_));
}

}  // namespace
