// Files, log and records of the reference host.
#include <gtest/gtest.h>

#include <regex>
#include <set>

#include "host/log.h"
#include "refhost/control.h"
#include "tests/support/files.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(WholeFile, KeepsItsPermissionsAndTakesThePlaceOfALinkButNotOfItsTarget) {
  const TempDir dir;
  const std::string file = dir.path(std::string(255, 'n')), text(200'001, '\0');
  write_file(file, "old");
  fs::permissions(file, fs::perms::owner_all);
  EXPECT_EQ(wa_writefile(file.c_str(), text, false) + wa_writefile(file.c_str(), "b", true), 0);
  std::string content;
  EXPECT_EQ(wa_readfile(file.c_str(), &content), 0);
  EXPECT_EQ(content, text + "b");
  EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_all);
  fs::create_symlink(file, dir.path("link"));
  EXPECT_EQ(wa_writefile(dir.path("link").c_str(), "new", false), 0);
  EXPECT_EQ(read_file(file), content);
}

TEST(Tree, IsMadeWithItsParentsAndDeletedWithoutFollowingLinks) {
  const TempDir dir;
  const auto make = [&](const char* name) { return wa_createtree(dir.path(name).c_str(), 0700); };
  const auto erase = [&](const char* name) { return wa_deletetree(dir.path(name).c_str()); };
  EXPECT_EQ(make("tree//sub/./deep/") + make("tree/sub"), 0);
  write_file(dir.path("tree/file"), "");
  write_file(dir.path("outside/kept"), "");
  fs::create_directory_symlink(dir.path("outside"), dir.path("tree/sub/out"));
  EXPECT_EQ(make("tree/file/a") + make("tree/sub/out/new"), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(erase("tree/sub/out") + erase("tree/sub/out/kept"), 2 * CR_STATUS_FAILED);
  EXPECT_EQ(erase("tree/sub/..") + wa_deletetree("/") + wa_deletetree(""), 3 * CR_STATUS_BAD_ARG);
  EXPECT_TRUE(fs::exists(dir.path("tree/sub/deep")));
  EXPECT_EQ(erase("tree/"), 0);
  EXPECT_TRUE(fs::exists(dir.path("outside/kept")));
}

TEST(LogFile, GetsWholeLinesOfItsLevelAndNoneThatANameForged) {
  const TempDir dir;
  ASSERT_EQ(refhost::log_to_file(dir.path("log").c_str()), CR_STATUS_OK);
  ErrorA(21, "name %s\n", "a\nb\r\x1b[0m\x7f\\x0A");
  InfoA(CR_STATUS_NONE, "told");
  __Trace("not important enough");
  refhost::log_to_stderr();
  const std::string start = R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z )";
  const std::regex lines(start +
                         R"(ERROR thread=\d+ status=21 name a\\x0Ab\\x0D\\x1B\[0m\\x7F\\\\x0A\n)" +
                         start + R"(INFO thread=\d+ status=- told\n)");
  const std::string text = read_file(dir.path("log"));
  EXPECT_TRUE(std::regex_match(text, lines)) << text;
}

// The example of docs/record.md.
const std::string kPoid = "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";
const std::string kGoldenText = "1234|/home/a%7Cb|it's 100%25%0A.txt|0|" + kPoid +
                                "|c0ffee||0000|2|A|4096|0100644|-1|1000:100|260|1700000000|"
                                "1700000001|0|1024||||33554432|||0|64|0|0";

// The golden text with one of its 29 fields replaced; counted from 1.
std::string with_field(std::size_t number, const std::string& value) {
  std::size_t start = 0;
  for (std::size_t i = 1; i < number; ++i) start = kGoldenText.find('|', start) + 1;
  const std::size_t end = std::min(kGoldenText.find('|', start), kGoldenText.size());
  return kGoldenText.substr(0, start) + value + kGoldenText.substr(end);
}

TEST(RecordText, IsOfTheDocumentedForm) {
  auto fields = file_fields("it's 100%\n.txt", kPoid, 4096, "/home/a|b");
  fields.dsid = 1234;
  fields.content_fp = "c0ffee";
  fields.special_fp = "0000";
  fields.stype = 2;
  fields.mod_type = 'A';
  fields.status = -1;
  fields.owner = "1000:100";
  fields.mtime = 1700000000;
  fields.ctime = 1700000001;
  fields.special_flags = SF_IMMUTABLE;
  EXPECT_EQ(text_of(fields), kGoldenText);
}

// A retried add finds its own entry again, although lock, flags and data store may have changed.
TEST(Record, EqualsWhenNoFieldThatDescribesTheEntryDiffers) {
  const std::set<std::size_t> ignored = {1, 10, 18, 23};
  const RecordPtr record = make_record();
  ASSERT_EQ(POSetFromString(record.get(), kGoldenText.c_str()), 0);
  for (std::size_t number = 1; number <= refhost::kRecordFields; ++number) {
    const RecordPtr other(POCopy(record.get()));
    const std::string changed = with_field(number, number == 12 ? "0100" : "7");
    ASSERT_EQ(POSetFromString(other.get(), changed.c_str()), 0) << changed;
    EXPECT_EQ(text_of(other.get()), changed);
    const bool equal = POEqualsPO(record.get(), other.get(), 0) != 0;
    EXPECT_EQ(equal, ignored.count(number) == 1) << changed;
  }
}

}  // namespace
