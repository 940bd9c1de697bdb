#include "uldb/udcid_record.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tests/support/log_capture.h"

namespace {

// Two entries; the same in version 1, and what becomes of that.
const std::string kHex =
    "020000000200000064000000000000000700000000010000001000000000000000000000020000008300F30E";
const std::string kOldHex = "010000000200000064000000C800000030017806";
const std::string kWidenedHex =
    "02000000020000006400000000000000C8000000000000000000000000000000000000000000000031010020";
const std::string kEmptyHex = "020000000000000003001800";

// From memory that is neither aligned nor a byte longer.
cr_status_t read(UDCIDRecord& record, const std::string& hex) {
  std::vector<unsigned char> bytes(1);
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return record.Deserialize(bytes.data() + 1, static_cast<unsigned int>(bytes.size() - 1));
}

std::string hex_of(UDCIDRecord& record) {
  char text[99] = "?";
  EXPECT_EQ(record.toString(text, 32 * record.ndcid + 25), CR_STATUS_OK);
  return text;
}

TEST(UdcidRecord, reads_and_writes_the_form_that_is_on_disk_and_refuses_every_other) {
  LogCapture log;
  UDCIDRecord record;
  for (const auto& [good, written] :
       {std::pair(kEmptyHex, kEmptyHex), {kOldHex, kWidenedHex}, {kHex, kHex}}) {
    EXPECT_EQ(read(record, good), CR_STATUS_OK);
    UDCIDRecord copy(record);
    for (std::size_t i = 0; i < good.size(); ++i) {
      std::string flipped = good;
      flipped[i] = good[i] == '0' ? '1' : '0';
      EXPECT_EQ(read(record, flipped), CR_STATUS_BAD_DATA) << good << " at " << i;
      EXPECT_EQ(read(record, good.substr(0, i)), CR_STATUS_BAD_DATA) << good << i;
    }
    EXPECT_EQ(hex_of(record), written) << "stays as it was";
    EXPECT_EQ(hex_of(copy), written);
  }
  // More entries than bytes, by a checksum that fits.
  for (const char* claim :
       {"020000000100000000000000000000000000000000000004005800", "010000000100000000000003001D00",
        "02000000000000100000000000000000000000000000000013005801",
        "02000000FFFFFFFF00000000000000000000000000000000FF03FE49",
        "01000000FFFFFFFF0000000000000000FE03F629"}) {
    EXPECT_EQ(read(record, claim), CR_STATUS_BAD_DATA) << claim;
  }
  log.expect_error(CR_STATUS_BAD_DATA,
                   "Deserialize: udcid data crc mismatch, calculated 1572867, expected 1572883.");
  log.clear();
}

TEST(UdcidRecord, lists_the_distinct_containers_of_the_statistics) {
  LogCapture log;
  const std::uint64_t given[] = {300, 64, 300, 63};
  _cr_stat_t stat = {3, given};
  const UDCIDRecord record(&stat);
  EXPECT_EQ(record.ndcid, 2U);
  EXPECT_EQ(std::vector(record.dcids, record.dcids + 4),
            (std::vector<std::uint64_t>{64, 300, 0, 0}));
  ++stat.so_count;
  EXPECT_THROW(UDCIDRecord{&stat}, Cr_ErrnoException);
  log.expect_error(CR_STATUS_BAD_ARG, "UDCIDRecord: Invalid DCID 63 at index 3.");
}

}  // namespace
