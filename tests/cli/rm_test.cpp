#include <filesystem>
#include <fstream>
#include <functional>

#include "cli/dsinfo.h"
#include "tests/cli/read_fixture.h"

namespace {

class RemoveTest : public CatalogTest {
 protected:
  using Counters = std::vector<std::uint64_t>;

  RemoveTest() {
    add_file("kept", file_fields("", make_poid(1), 100));
    add_file("gone", file_fields("", make_poid(2), 23));
  }

  Outcome remove(const std::string& path) const { return run_command({"rm", "--", root_, path}); }

  Counters counters() const {
    cli::DsInfo info;
    if (cli::read_dsinfo(root_, 5, &info) != CR_STATUS_OK) return {};
    return {info.counters.total_size, info.counters.dir_count, info.counters.file_count,
            info.open_runs};
  }
};

TEST_F(RemoveTest, FilesAndEmptyDirectoriesGoAndTheCountersFollow) {
  const std::string empty = image_ + "/empty";
  const std::string bare = image_ + "/bare";  // not counted: it has no record
  add_directory(empty);
  std::ofstream(full(empty) + "/po.db").flush();  // the leftover of a crash
  std::filesystem::create_directory(full(bare));
  const std::vector<std::pair<std::string, Counters>> steps = {
      {bare, {123, 2, 2, 0}}, {empty, {123, 1, 2, 0}}, {image_ + "/gone", {100, 1, 1, 0}}};
  for (const auto& [path, left] : steps) {
    EXPECT_EQ(remove(path).status, cli::kDone);
    EXPECT_EQ(counters(), left);
    EXPECT_FALSE(std::filesystem::exists(full(path)));
  }
  EXPECT_EQ(sql("SELECT group_concat(basename) FROM po"), "kept");
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
  add_directory(below + "foreign");
  std::ofstream(full(below + "foreign/file")) << "x";
  add_directory(below + "corrupt");
  std::ofstream(full(below + "corrupt/po.db")) << std::string(5000, 'x');
  add_directory(below + "broken");
  std::ofstream(full(below + "broken/__dirpo__")) << "x";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {below + "none", "no such entry"},
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
  for (const auto& [path, reason] : cases) {
    const Outcome outcome = remove(path);
    EXPECT_EQ(outcome.status, reason == "not a path" ? cli::kUsage : cli::kFailed) << path;
    EXPECT_NE(outcome.err.find(reason), std::string::npos) << outcome.err;
  }
  EXPECT_EQ(sql("SELECT group_concat(basename || crc) FROM po"), rows);
  EXPECT_EQ(counters(), Counters{});
  for (const char* name : {"parent", "immutable-dir", "foreign", "corrupt", "broken"}) {
    std::filesystem::remove_all(full(below + name));
  }
  EXPECT_NE(remove(image_).err.find("files in it"), std::string::npos);
}

// By the number that verify names: what has no name, and no file that could replace it.
TEST_F(RemoveTest, DamagedRowsGoByTheirNumberAndNoOthers) {
  const auto row = [&](const std::string& name, const std::string& changes) {
    sql("INSERT INTO po SELECT " + name + ", poid, content, crc FROM po WHERE basename = 'kept'; " +
        "UPDATE po SET " + changes + " WHERE rowid = last_insert_rowid()");
    return sql("SELECT MAX(rowid) FROM po");
  };
  refhost::RecordFields immutable = file_fields("", make_poid(3), 5);
  immutable.special_flags = SF_IMMUTABLE;
  add_file("immutable", immutable);
  sql("UPDATE po SET poid = CAST(poid AS BLOB) WHERE basename = 'immutable'");
  const std::vector<std::pair<std::string, std::string>> refused = {
      {sql("SELECT rowid FROM po WHERE basename = 'kept'"), "is sound"},
      {sql("SELECT rowid FROM po WHERE basename = 'immutable'"), "protected"},
      {"4711", "no row"}};
  const auto remove_row = [&](const std::string& number) {
    return run_command({"rm", root_, image_, "--damaged-row", number});
  };
  for (const auto& [number, reason] : refused) {
    const Outcome outcome = remove_row(number);
    EXPECT_EQ(outcome.status, cli::kFailed);
    EXPECT_NE(outcome.err.find(reason), std::string::npos) << outcome.err;
  }
  for (const char* name : {"'vanished'", "'a/b'", "'nul' || char(0)", "x'61'", "NULL", "''"}) {
    EXPECT_EQ(remove_row(row(name, "crc = 0")).status, cli::kDone) << name;
  }
  EXPECT_EQ(sql("SELECT group_concat(basename) FROM po"), "gone,immutable,kept");
  EXPECT_EQ(counters(), (Counters{128, 1, 3, 0}));
}

// Every name that Linux allows, byte for byte.
TEST_F(RemoveTest, HostileNamesAreListedShownAndRemovedLikeAnyOther) {
  std::vector<std::string> names = {"x' OR '1'='1", "a|b%7C", "--json",   "...",
                                    "po.db",        "'",      "\xe2\x82", "%s%n"};
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
      const auto control = [](unsigned char c) { return c < ' ' || c == '\x7f'; };
      EXPECT_EQ(std::count_if(outcome.out.begin(), outcome.out.end() - 1, control), 0);
    }
  }
  EXPECT_EQ(sql("SELECT group_concat(basename) FROM po"), "gone,kept");
  EXPECT_EQ(run_command({"verify", root_}).status, cli::kDone);
}

}  // namespace
