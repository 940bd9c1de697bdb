#include <filesystem>
#include <fstream>
#include <functional>

#include "cli/dsinfo.h"
#include "tests/cli/read_fixture.h"

namespace {

class RemoveTest : public CatalogTest {
 protected:
  RemoveTest() {
    add_file("kept", file_fields("", make_poid(1), 100));
    add_file("gone", file_fields("", make_poid(2), 23));
  }

  Outcome remove(const std::string& path) const { return run_command({"rm", "--", root_, path}); }

  std::vector<std::uint64_t> counters() const {
    cli::DsInfo info;
    if (cli::read_dsinfo(root_, 5, &info) != CR_STATUS_OK) return {};
    return {info.counters.total_size, info.counters.dir_count, info.counters.file_count,
            info.open_runs};
  }
};

using Counters = std::vector<std::uint64_t>;

TEST_F(RemoveTest, AFileGoesAndTheCountersFollow) {
  const Outcome outcome = remove(image_ + "/gone");
  EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
  EXPECT_EQ(outcome.out, "removed " + image_ + "/gone\n");
  EXPECT_EQ(sql("SELECT group_concat(basename) FROM po"), "kept");
  EXPECT_EQ(counters(), (Counters{100, 1, 1, 0}));
}

TEST_F(RemoveTest, AnEmptyDirectoryGoesAndIsCountedOnlyIfItHadARecord) {
  const std::string empty = image_ + "/empty";
  const std::string bare = image_ + "/bare";
  add_directory(empty);
  std::ofstream(full(empty) + "/po.db").flush();  // the leftover of a crash
  std::filesystem::create_directory(full(bare));
  EXPECT_EQ(remove(bare).status, cli::kDone);
  EXPECT_EQ(counters(), (Counters{123, 2, 2, 0}));
  EXPECT_EQ(remove(empty).status, cli::kDone);
  EXPECT_EQ(counters(), (Counters{123, 1, 2, 0}));
  EXPECT_FALSE(std::filesystem::exists(full(empty)) || std::filesystem::exists(full(bare)));
}

TEST_F(RemoveTest, WhatMustStayIsRefusedWithAReasonAndNothingChanges) {
  refhost::RecordFields immutable = file_fields("", make_poid(3), 5);
  immutable.special_flags = SF_IMMUTABLE;
  add_file("immutable", immutable);
  add_file("damaged");
  sql("UPDATE po SET crc = 0 WHERE basename = 'damaged'");
  const std::string below = image_ + "/";
  add_directory(below + "immutable-dir", SF_IMMUTABLE);
  add_directory(below + "parent/child");
  add_directory(below + "parent");
  add_directory(below + "foreign");
  std::ofstream(full(below + "foreign/file")) << "x";
  add_directory(below + "corrupt");
  std::ofstream(full(below + "corrupt/po.db")) << std::string(5000, 'x');
  add_directory(below + "broken");
  std::ofstream(full(below + "broken/__dirpo__")) << "x";
  struct Case {
    std::string path;
    std::string reason;
  };
  const std::vector<Case> cases = {
      {below + "none", "no such entry"},
      {below + "gone/", "no such entry"},
      {below + "immutable", "immutable"},
      {below + "damaged", "damaged"},
      {below + "immutable-dir", "immutable"},
      {below + "parent", "directories in it"},
      {below + "foreign", "not the catalog's"},
      {below + "corrupt", "cannot be read"},
      {below + "broken", "damaged"},
      {image_, "directories in it"},
      {"5/client/policy/../policy", "not a path"},
      {"5", "data store"},
  };
  const std::string rows = sql("SELECT group_concat(basename || crc) FROM po");
  for (const Case& c : cases) {
    SCOPED_TRACE(c.path);
    const Outcome outcome = remove(c.path);
    EXPECT_EQ(outcome.status, c.path.find("..") == std::string::npos ? cli::kFailed : cli::kUsage);
    EXPECT_NE(outcome.err.find(c.reason), std::string::npos) << outcome.err;
    EXPECT_EQ(outcome.out, "");
  }
  EXPECT_EQ(sql("SELECT group_concat(basename || crc) FROM po"), rows);
  EXPECT_EQ(counters(), Counters{});
  std::filesystem::remove_all(full(below + "parent"));
  for (const char* name : {"immutable-dir", "foreign", "corrupt", "broken"}) {
    std::filesystem::remove_all(full(below + name));
  }
  EXPECT_NE(remove(image_).err.find("files in it"), std::string::npos);
}

// Every name that Linux allows, byte for byte.
TEST_F(RemoveTest, HostileNamesAreListedShownAndRemovedLikeAnyOther) {
  std::vector<std::string> names = {"it's.txt", "x' OR '1'='1", "a|b%7C",     " blank ", "--json",
                                    "...",      "[a,b]",        "\"quoted\"", "po.db",   "'",
                                    "\xe2\x82", "x\ny",         "%s%n",       "*?"};
  names.emplace_back(255, 'n');
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/' && byte != '.' && byte != '\'') names.emplace_back(1, static_cast<char>(byte));
  }
  for (const std::string& name : names) add_file(name);
  const auto before = run_command({"--json", "ls", root_, image_}).json();
  EXPECT_EQ(before.size(), names.size() + 2);
  for (const std::string& name : names) {
    SCOPED_TRACE(cli::printable(name));
    const std::string path = image_ + "/" + name;
    const Outcome shown = run_command({"--json", "show", "--", root_, path});
    ASSERT_EQ(shown.status, cli::kDone) << shown.err;
    const auto line = shown.json().at(0);
    EXPECT_TRUE(line.contains("path_hex") || line.value("path", "") == path);
    for (const Outcome& outcome : {run_command({"ls", "--", root_, path}), remove(path)}) {
      EXPECT_EQ(outcome.status, cli::kDone) << outcome.err;
      const auto control = [](char c) {
        return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
      };
      const std::string line_end = outcome.out.substr(0, outcome.out.size() - 1);
      EXPECT_EQ(std::count_if(line_end.begin(), line_end.end(), control), 0) << outcome.out;
    }
  }
  EXPECT_EQ(sql("SELECT group_concat(basename) FROM po"), "gone,kept");
  EXPECT_EQ(run_command({"verify", root_}).status, cli::kDone);
}

}  // namespace
