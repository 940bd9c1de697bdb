#include "refhost/record.h"

#include <gtest/gtest.h>

#include <set>

#include "tests/support/records.h"

namespace {

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
