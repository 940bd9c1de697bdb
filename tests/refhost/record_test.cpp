#include "refhost/record.h"

#include <gtest/gtest.h>

#include <set>
#include <string>
#include <vector>

#include "tests/support/records.h"

namespace {

using refhost::RecordFields;

// The example of docs/record.md.
constexpr char kGoldenText[] =
    "1234|/home/a%7Cb|it's 100%25%0A.txt|0|"
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855|c0ffee||0000|2|A|4096|"
    "0100644|"
    "-1|1000:100|260|1700000000|1700000001|0|1024||||33554432|||0|64|0|0";

RecordFields golden_fields() {
  RecordFields fields = file_fields(
      "it's 100%\n.txt", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855", 4096,
      "/home/a|b");
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
  return fields;
}

// The default directory record with one of its 29 fields replaced; counted from 1.
std::string with_field(std::size_t number, const std::string& value) {
  std::string text = kDefaultDirText;
  std::size_t start = 0;
  for (std::size_t i = 1; i < number; ++i) start = text.find('|', start) + 1;
  const std::size_t end = text.find('|', start);
  return text.replace(start, end == std::string::npos ? end : end - start, value);
}

TEST(RecordText, HasTheBytesThatAreDocumented) {
  EXPECT_EQ(text_of(golden_fields()), kGoldenText);
  EXPECT_EQ(text_of(RecordFields()), "0|||0|||||0|N|0|0|0||260|0|0|0|1024||||0|||0|64|0|0");
  std::string joined;
  for (const auto& field : refhost::named_fields(make_record(golden_fields()).get())) {
    joined += (joined.empty() ? "" : "|") + field.text;
  }
  EXPECT_EQ(joined, kGoldenText);
}

TEST(RecordText, PrintsWhatItParsed) {
  for (const std::string& text :
       {std::string(kDefaultDirText), std::string(kGoldenText), with_field(1, "4294967295"),
        with_field(4, "2"), with_field(5, "not a poid"), with_field(9, "-2147483648"),
        with_field(11, "18446744073709551615"), with_field(12, "0"), with_field(15, "any %7C"),
        with_field(29, "")}) {
    const RecordPtr record = make_record();
    EXPECT_EQ(POSetFromString(record.get(), text.c_str()), 0) << text;
    EXPECT_EQ(text_of(record.get()), text);
  }
}

TEST(RecordText, RefusesWhatItWouldNotPrint) {
  std::vector<std::string> texts = {"",
                                    std::string(27, '|'),
                                    std::string(28, '|'),
                                    kDefaultDirText + std::string("|"),
                                    kDefaultDirText + std::string("\n"),
                                    with_field(1, "4294967296"),
                                    with_field(1, "-1"),
                                    with_field(4, "2147483648"),
                                    with_field(3, "a/b")};
  for (const char* value : {"", "x", "+1", " 1", "1 ", "00", "-0", "1x", "18446744073709551616"}) {
    for (const std::size_t number : {1U, 4U, 9U, 11U, 12U, 13U, 16U, 17U, 18U, 23U}) {
      texts.push_back(with_field(number, value));
    }
  }
  for (const char* value : {"%", "%4", "%41", "%7c", "%0a", "%GG", "%00", "a\nb", "\x7f"}) {
    for (const std::size_t number : {2U, 3U, 5U, 14U, 15U, 24U})
      texts.push_back(with_field(number, value));
  }
  for (const char* mode : {"40755", "08", "0040755", "040000000000"}) {
    texts.push_back(with_field(12, mode));
  }
  for (const char* code : {"", "NN", " ", "%", "%4E", "\xc4"})
    texts.push_back(with_field(10, code));
  const RecordPtr record = make_record(golden_fields());
  for (const std::string& text : texts) {
    *__cr_errno_location() = 0;
    EXPECT_EQ(POSetFromString(record.get(), text.c_str()), -1) << text;
    EXPECT_EQ(*__cr_errno_location(), CR_STATUS_BAD_RECORD) << text;
  }
  EXPECT_EQ(text_of(record.get()), kGoldenText);
}

TEST(RecordText, CarriesEveryFileName) {
  std::vector<std::string> names = {
      " a ", "..", "a|b%7C", "%00", "\xc3\xa4", "\xff\xfe", std::string(255, '|')};
  for (int byte = 1; byte < 256; ++byte) {
    if (byte != '/') names.emplace_back(1, static_cast<char>(byte));
  }
  for (const std::string& name : names) {
    const RecordPtr record = make_record();
    ASSERT_EQ(POSetPath(record.get(), std::string("/").append(name).append("/x").c_str()), 0);
    ASSERT_EQ(POSetBasename(record.get(), name.c_str()), 0);
    const std::string text = text_of(record.get());
    EXPECT_EQ(text.find_first_of("\n\r\x7f"), std::string::npos);
    const RecordPtr again = make_record();
    ASSERT_EQ(POSetFromString(again.get(), text.c_str()), 0) << text;
    EXPECT_EQ(POGetDirname(again.get()), "/" + name);
    EXPECT_EQ(POGetBasename(again.get()), name);
  }
}

TEST(Record, SplitsAPathIntoDirectoryAndLeaf) {
  const std::vector<std::vector<const char*>> cases = {
      {"/a", "/", "a"},       {"a", "/", "a"},       {"/a/b", "/a", "b"},
      {"x/a/b", "/x/a", "b"}, {"/a//b", "/a/", "b"}, {"/ a /b.", "/ a ", "b."}};
  for (const auto& c : cases) {
    const RecordPtr record = make_record();
    ASSERT_EQ(POSetPath(record.get(), c[0]), 0) << c[0];
    EXPECT_STREQ(POGetInternalDirname(record.get()), c[1]) << c[0];
    EXPECT_STREQ(POGetBasename(record.get()), c[2]) << c[0];
  }
}

TEST(Record, StaysAsItWasWhenASetterRefuses) {
  const RecordPtr record = make_record(golden_fields());
  RecordFields nul_inside = golden_fields();
  nul_inside.owner = std::string("a\0b", 3);
  RecordFields bad_code = golden_fields();
  bad_code.mod_type = '|';
  const int results[] = {POSetPath(record.get(), nullptr),
                         POSetPath(record.get(), ""),
                         POSetPath(record.get(), "/a/"),
                         POSetDirname(record.get(), nullptr),
                         POSetBasename(record.get(), "a/b"),
                         POSetFromString(record.get(), nullptr),
                         POSetDsid(nullptr, 1),
                         refhost::set_fields(record.get(), nul_inside),
                         refhost::set_fields(record.get(), bad_code)};
  for (const int result : results) EXPECT_EQ(result, -1) << &result - results;
  EXPECT_EQ(*__cr_errno_location(), CR_STATUS_BAD_ARG);
  EXPECT_EQ(text_of(record.get()), kGoldenText);
}

// A retried add finds its own entry again, although lock, flags and data store may have changed.
TEST(Record, EqualsWhenNoFieldThatDescribesTheEntryDiffers) {
  const std::set<std::size_t> ignored = {1, 10, 18, 23};
  const RecordPtr base = make_record();
  ASSERT_EQ(POSetFromString(base.get(), kDefaultDirText), 0);
  for (std::size_t number = 1; number <= refhost::kRecordFields; ++number) {
    const RecordPtr other(POCopy(base.get()));
    const std::string changed = with_field(number, number == 12 ? "0100" : "7");
    ASSERT_EQ(POSetFromString(other.get(), changed.c_str()), 0) << changed;
    EXPECT_EQ(POEqualsPO(base.get(), other.get(), 0) != 0, ignored.count(number) == 1) << changed;
  }
}

TEST(Record, KnowsPoidsAndEmptyFingerprints) {
  EXPECT_TRUE(POIDStringValidate(make_poid(7).c_str()));
  for (const std::string& poid : {std::string(), std::string(63, 'a'), std::string(65, 'a'),
                                  std::string(64, 'A'), std::string(64, 'g')}) {
    EXPECT_FALSE(POIDStringValidate(poid.c_str())) << poid;
  }
  for (const char* empty : {static_cast<const char*>(nullptr), "", "0000"}) {
    EXPECT_NE(CRFPIsEmptyFP(empty), 0);
  }
  EXPECT_EQ(CRFPIsEmptyFP("0001"), 0);
}

}  // namespace
