#include <fmt/format.h>
#include <sys/stat.h>

#include <set>

#include "tests/cli/independent.h"
#include "tests/cli/read_fixture.h"

namespace {

using IngestTest = CommandTest;

// The 29 fields of a record without location, for what lies at `path`.
std::string record_text(int type, const std::string& poid, const std::string& path) {
  struct stat at {};
  EXPECT_EQ(stat(path.c_str(), &at), 0) << path;
  const auto size = type == PO_TYPE_FILE ? at.st_size : 0;
  return fmt::format("0|||{}|{}|{}|||0|N|{}|0{:o}|0|{}:{}|260|{}|{}|0|1024||||0|||0|64|0|0", type,
                     poid, poid, size, at.st_mode, at.st_uid, at.st_gid, at.st_mtime, at.st_ctime);
}

TEST_F(IngestTest, AnIndependentReaderFindsEveryFileAsItIsAndItsContainers) {
  constexpr std::size_t kSegment = 4U << 20U;
  const std::string twice(2 * kSegment, 'a');
  const std::map<std::string, std::map<std::string, std::string>> tree = {
      {"",
       {{"empty", ""},
        {"po.db", "a file of that name"},
        {"large", std::string(300000, 'q')},
        {"whole", twice.substr(kSegment)},
        {"twice", twice + "rest"},
        {"across", std::string(kSegment - 1, 'b') + std::string(kSegment + 2, 'c')}}},
      {"/a", {{"x", "x"}}},
      {"/a/b", {{"deep", "x"}, {"same", "x"}}}};
  for (const auto& [inner, files] : tree) {
    for (const auto& [name, content] : files) write(inner + "/" + name, content);
  }
  EXPECT_EQ(ingest(cli::kDone), (Counters{9, 0, 0, 0, 0}));
  EXPECT_EQ(counters(), (Counters{19 + 300000 + 5 * kSegment + 4 + 1 + 3, 4, 9, 0}));
  EXPECT_EQ(containers_of(twice + "rest").size(), 2U);
  for (const auto& [inner, files] : tree) {
    std::vector<std::string> contents;
    for (const auto& [name, content] : files) {
      const std::string poid = content.empty() ? "" : sha256_hex(content);
      const std::string text = record_text(PO_TYPE_FILE, poid, source_ + inner + "/" + name);
      EXPECT_EQ(rows(inner, "SELECT poid, content, crc FROM po WHERE basename = '" + name + "'"),
                (RawRows{{poid, text, std::to_string(plain_adler32(name + poid + text))}}));
      if (!content.empty()) contents.push_back(content);
    }
    EXPECT_EQ(lists_of(full(image_) + inner), lists_for(contents));
    EXPECT_EQ(read_file(full(image_) + inner + "/__dirpo__"),
              record_text(PO_TYPE_DIR, "", source_ + inner));
  }
}

TEST_F(IngestTest, ASecondRunChangesNoByteAndALaterOneExactlyWhatChanged) {
  write("same", "same");
  write("changed", "old");
  write("sub/gone", "12345");
  write("sub/below/gone too", "x");
  write("was a directory/file", "x");
  EXPECT_EQ(ingest(cli::kDone), (Counters{5, 0, 0, 0, 0}));
  const auto before = snapshot(root_);
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 5, 0, 0}));
  EXPECT_EQ(snapshot(root_), before);

  const RawRows same = rows("", "SELECT * FROM po WHERE basename = 'same'");
  write("changed", "newer");
  write("new", "");
  fs::remove_all(source_ + "/sub");
  fs::remove_all(source_ + "/was a directory");
  write("was a directory", "yy");
  EXPECT_EQ(ingest(cli::kDone), (Counters{2, 1, 1, 0, 0}));
  EXPECT_EQ(names("/sub"), Names{"gone"});
  EXPECT_EQ(counters(), (Counters{4 + 5 + 5 + 1 + 1 + 2, 5, 7, 0}));

  fs::remove(source_ + "/changed");
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 3, 4, 0}));
  EXPECT_EQ(names(), (Names{"new", "same", "was a directory"}));
  EXPECT_FALSE(fs::exists(full(image_ + "/sub")) || fs::exists(full(image_ + "/was a directory")));
  EXPECT_EQ(rows("", "SELECT * FROM po WHERE basename = 'same'"), same);
  EXPECT_EQ(counters(), (Counters{6, 2, 3, 0}));
}

// Every name that Linux allows: those of one byte, and what programs tend to break on.
TEST_F(IngestTest, HostileNamesAreAddedListedShownReplacedAndRemovedByteForByte) {
  std::set<std::string> hostile = {
      "it's.txt", "x' OR '1'='1", "a|b%7C", "new\nline", "%41",      " blank ", "\xff\xfe", "...",
      "--json",   "\xc3\xa9",     "%s%n",   "* ? [a]",   "\xe2\x82", "-rf",     "\x1b[31m", "a\\b"};
  std::string below = "dd";  // a directory of each odd name, one in the other
  for (const std::string& name : hostile) below.append("/").append(name);
  hostile.insert({"po.db", std::string(255, 'n'), std::string(255, '\'')});
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') hostile.emplace(1, static_cast<char>(byte));
  }
  const auto write_all = [&](const std::string& content) {
    for (const std::string& name : hostile) write(name, content);
    for (const std::string& name : hostile) write(fs::path(below) / name, content);
  };
  const Names expected(hostile.begin(), hostile.end());
  const std::uint64_t files = 2 * expected.size();
  write_all("a");
  EXPECT_EQ(ingest(cli::kDone), (Counters{files, 0, 0, 0, 0}));
  EXPECT_EQ(names(), expected);
  write_all("bb");
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, files, 0, 0, 0}));
  EXPECT_EQ(names("/" + below), expected);
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, 0, files, 0, 0}));
  EXPECT_EQ(command("--json ls " + root_ + " " + image_).json().size(), expected.size() + 1);
  for (const std::string& name : hostile) {
    const std::string path = image_ + "/" + name;
    const auto shown = command("--json show --", {root_, path}).json().at(0);
    EXPECT_TRUE(shown.contains("path_hex") || shown.value("path", "") == path) << shown;
    for (const char* of : {"ls --", "rm --"}) {
      const Outcome outcome = command(of, {root_, path});
      EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
      const auto control = [](unsigned char c) { return c < ' ' || c == '\x7f'; };
      EXPECT_EQ(std::count_if(outcome.out.begin(), outcome.out.end() - 1, control), 0);
    }
  }
  fs::remove_all(source_);
  fs::create_directory(source_);
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 0, files / 2, 0}));
  EXPECT_EQ(names(), Names());
  EXPECT_EQ(counters(), (Counters{0, 2, 0, 0}));
}

TEST_F(IngestTest, WhatIsNoFileOrDirectoryIsCountedAndTheCatalogItselfLeftOut) {
  write("file", "x");
  fs::create_symlink("file", source_ + "/link");
  fs::create_directory_symlink("/", source_ + "/link to a directory");
  ASSERT_EQ(mkfifo((source_ + "/pipe").c_str(), 0600), 0);
  const std::string into = " --root " + source_ + "/c/catalog --dsid 5 --client c --policy p";
  for (const int unchanged : {0, 1}) {
    const auto summary = expect(cli::kDone, "--json ingest " + source_ + into).json().at(0);
    EXPECT_EQ(summary["unchanged"], unchanged);
    EXPECT_EQ(summary["directories"], 2);
    EXPECT_EQ(summary["skipped"].dump(),
              R"({"catalog":1,"devices":0,"links":2,"pipes":1,"sockets":0})");
  }
  for (const char* below : {"/c/catalog", "/c/catalog/5/c"}) {
    expect(cli::kUsage, "ingest " + source_ + below + into);
  }
}

TEST_F(IngestTest, DirectoriesThatACatalogCannotHoldAreReportedAndSkipped) {
  write("po.db/lost", "x");
  write("__dirpo__/lost", "x");
  write("fits", "x");
  // One directory whose database has the longest path that SQLite opens, one a byte longer.
  const std::size_t room = 504 - database(image_).size();
  std::string longest = "/" + std::string(200, 'd') + "/";
  longest.append(room - longest.size(), 'd');
  write(longest + "/fits", "x");
  write(longest + "d/lost", "x");
  EXPECT_EQ(ingest(cli::kIncomplete, "--delete"), (Counters{2, 0, 0, 0, 3}));
  EXPECT_EQ(names(longest), Names{"fits"});
  EXPECT_FALSE(fs::exists(full(image_) + longest + "d"));
}

TEST_F(IngestTest, WithoutContentsSizeAndTimeTellWhatChanged) {
  write("read", "content");
  ingest(cli::kDone);
  write("not read", "content");
  EXPECT_EQ(ingest(cli::kDone, "--no-content"), (Counters{1, 0, 1, 0, 0}));
  const std::string poids = "SELECT basename, poid FROM po ORDER BY basename";
  EXPECT_EQ(rows("", poids), (RawRows{{"not read", ""}, {"read", sha256_hex("content")}}));
  write("read", "another content");
  EXPECT_EQ(ingest(cli::kDone, "--no-content"), (Counters{0, 1, 1, 0, 0}));
  EXPECT_EQ(rows("", poids), (RawRows{{"not read", ""}, {"read", ""}}));
}

TEST_F(IngestTest, WrongArgumentsAreRefusedBeforeAnythingIsMade) {
  for (const std::string wrong :
       {"0 --client c --policy p", "4294967296 --client c --policy p", "010 --client c --policy p",
        "5 --client '' --policy p", "5 --client c --policy ..", "5 --client a/b --policy p",
        "5 --client c --policy __dirpo__", "5 --client __dsinfo__.lock --policy p"}) {
    expect(cli::kUsage, "ingest " + source_ + " --root " + root_ + " --dsid " + wrong);
  }
  EXPECT_FALSE(fs::exists(root_));
}

}  // namespace
