#include <sys/stat.h>

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
  const std::string segment(4U << 20U, 'a');
  using Files = std::map<std::string, std::string>;
  const std::map<std::string, Files> tree = {
      {"", {{"empty", ""}, {"po.db", "a file of that name"}, {"thrice", segment + segment + "a"}}},
      {"/a", {{"x", "x"}}},
      {"/a/b", {{"deep", "x"}, {"same", "x"}}}};
  for (const auto& [inner, files] : tree) {
    for (const auto& [name, content] : files) write(fmt::format("{}/{}", inner, name), content);
  }
  EXPECT_EQ(ingest(cli::kDone), (Counters{6, 0, 0, 0, 0}));
  EXPECT_EQ(counters(), (Counters{19 + 2 * segment.size() + 1 + 3, 4, 6, 0}));
  for (const auto& [inner, files] : tree) {
    Names contents;
    for (const auto& [name, content] : files) {
      const std::string poid = content.empty() ? "" : sha256_hex(content);
      const std::string text = record_text(PO_TYPE_FILE, poid, fs::path(source_ + inner) / name);
      const auto crc = plain_adler32(fmt::format("{}{}{}", name, poid, text));
      EXPECT_EQ(rows(inner, "SELECT poid, content, crc FROM po WHERE basename = '" + name + "'"),
                (RawRows{{poid, text, std::to_string(crc)}}));
      if (!content.empty()) contents.push_back(content);
    }
    expect_lists(full(image_) + inner + "/ul.db", contents);
    EXPECT_EQ(read_file(full(image_) + inner + "/__dirpo__"),
              record_text(PO_TYPE_DIR, "", source_ + inner));
  }
}

TEST_F(IngestTest, ASecondRunChangesNoByteAndALaterOneExactlyWhatChanged) {
  for (const std::string name : {"same", "changed", "sub/gone", "sub/below/gone", "was/file"}) {
    write(name, name);
  }
  ingest(cli::kDone);
  const auto before = snapshot(root_);
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 5, 0, 0}));
  EXPECT_EQ(snapshot(root_), before);
  const std::string same = "SELECT * FROM po WHERE basename = 'same'";
  const RawRows same_row = rows("", same);
  write("changed", "newer");
  for (const std::string gone : {"/sub", "/was"}) fs::remove_all(source_ + gone);
  write("was", "yy");
  EXPECT_EQ(ingest(cli::kDone), (Counters{1, 1, 1, 0, 0}));
  EXPECT_EQ(names("/sub"), Names{"gone"});
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{0, 0, 3, 3, 0}));
  EXPECT_EQ(names(), (Names{"changed", "same", "was"}));
  EXPECT_FALSE(fs::exists(full(image_ + "/sub")) || fs::exists(full(image_ + "/was")));
  EXPECT_EQ(rows("", same), same_row);
  EXPECT_EQ(counters(), (Counters{5 + 4 + 2, 2, 3, 0}));
}

// Every name that Linux allows: those of one byte, and what programs tend to break on.
TEST_F(IngestTest, HostileNamesAreAddedListedShownAndRemovedByteForByte) {
  std::set<std::string> hostile = {"x' OR '1'='1", "a|b%7C", "new\nline", "%41",  " blank ",
                                   "\xff\xfe",     "...",    "--json",    "%s%n", "* ? [a]",
                                   "\xe2\x82 ",    "-rf",    "\x1b[31m",  "a\\b"};
  std::string below = "dd";  // a directory of each odd name, one in the other
  for (const std::string& name : hostile) below.append("/").append(name);
  hostile.insert({"po.db", std::string(255, '\'')});
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.') hostile.emplace(1, static_cast<char>(byte));
  }
  for (const std::string& name : hostile) write(name, "a"), write(fs::path(below) / name, "a");
  const Names expected(hostile.begin(), hostile.end());
  const std::uint64_t files = expected.size();
  EXPECT_EQ(ingest(cli::kDone), (Counters{2 * files, 0, 0, 0, 0}));
  EXPECT_EQ(ingest(cli::kDone), (Counters{0, 0, 2 * files, 0, 0}));
  EXPECT_EQ(names(), expected);
  EXPECT_EQ(names("/" + below), expected);
  for (const std::string& name : hostile) {
    const std::string path = image_ + "/" + name;
    const auto shown = command("--json show --", {root_, path}).json().at(0);
    EXPECT_TRUE(shown.contains("path_hex") || shown.value("path", "") == path) << shown;
    const Outcome removed = command("rm --", {root_, path});
    EXPECT_EQ(removed.status, cli::kDone) << removed.err;
    EXPECT_EQ(removed.out.find_first_of("\x1b\x7f\t\r"), std::string::npos);
  }
  fs::remove_all(source_ + "/dd");
  EXPECT_EQ(ingest(cli::kDone, "--delete"), (Counters{files, 0, 0, files, 0}));
}

TEST_F(IngestTest, WhatACatalogCannotHoldIsCountedOrReportedAndTheCatalogItselfLeftOut) {
  write("file", "x");
  write("po.db/file", "x");  // the directory cannot be stored
  fs::create_directory_symlink("/", source_ + "/link to a directory");
  ASSERT_EQ(mkfifo((source_ + "/pipe").c_str(), 0600), 0);
  const std::string into = " --root " + source_ + "/c/catalog --dsid 5 --client c --policy p";
  for (const int unchanged : {0, 1}) {
    const auto lines = expect(cli::kIncomplete, "--json ingest " + source_ + into, "po.db").json();
    EXPECT_EQ(lines.back()["unchanged"], unchanged);
    EXPECT_EQ(lines.back()["skipped"].dump(),
              R"({"catalog":1,"devices":0,"links":1,"pipes":1,"sockets":0})");
  }
  expect(cli::kUsage, "ingest " + source_ + "/c/catalog/5" + into);
}

TEST_F(IngestTest, WithoutContentsSizeAndTimeTellWhatChanged) {
  write("read", "content");
  ingest(cli::kDone);
  EXPECT_EQ(ingest(cli::kDone, "--no-content"), (Counters{0, 0, 1, 0, 0}));
  EXPECT_EQ(sql("SELECT poid FROM po"), sha256_hex("content"));
  write("read", "another content");
  EXPECT_EQ(ingest(cli::kDone, "--no-content"), (Counters{0, 1, 0, 0, 0}));
  EXPECT_EQ(sql("SELECT poid FROM po"), "");
}

}  // namespace
