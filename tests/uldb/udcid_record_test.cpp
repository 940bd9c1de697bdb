#include "uldb/udcid_record.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "base/adler32.h"
#include "tests/support/log_capture.h"

// Lets a failed allocation return null under the sanitizers, too.
extern "C" const char* __asan_default_options() { return "allocator_may_return_null=1"; }
extern "C" const char* __tsan_default_options() { return "allocator_may_return_null=1"; }

namespace {

using Bytes = std::vector<unsigned char>;
using Numbers = std::vector<std::uint64_t>;

const Numbers kList = {100, (1ULL << 40) + 7, 4096, 1ULL << 33};
const std::string kListHex =
    "0200000002000000"
    "64000000000000000700000000010000"
    "00100000000000000000000002000000"
    "8300F30E";
const std::string kOldHex = "010000000200000064000000C800000030017806";
const std::string kEmptyHex = "020000000000000003001800";

Bytes from_hex(const std::string& hex) {
  Bytes bytes;
  for (std::size_t i = 0; i < hex.size(); i += 2) {
    bytes.push_back(static_cast<unsigned char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

UDCIDRecord wrapping(Numbers& list) {
  return {static_cast<unsigned int>(list.size() / 2),
          reinterpret_cast<unsigned char*>(list.data())};
}

cr_status_t read(UDCIDRecord& record, Bytes bytes) {
  unsigned char none = 0;
  return record.Deserialize(bytes.empty() ? &none : bytes.data(),
                            static_cast<unsigned int>(bytes.size()));
}

std::string hex_of(UDCIDRecord& record) {
  std::string text(32 * std::size_t{record.ndcid} + 25, '?');
  EXPECT_EQ(record.toString(text.data(), static_cast<unsigned int>(text.size())), CR_STATUS_OK);
  EXPECT_EQ(text.back(), '\0');
  text.pop_back();
  return text;
}

Numbers entries_of(UDCIDRecord& record) {
  Numbers dcids;
  Numbers sizes;
  unsigned long dcid = 0;
  unsigned long size = 0;
  for (unsigned int i = 0; record.get_next(dcid, size, i) == CR_STATUS_OK;) {
    dcids.push_back(dcid);
    sizes.push_back(size);
  }
  dcids.insert(dcids.end(), sizes.begin(), sizes.end());
  return dcids;
}

// A header and `payload` zero bytes under a true checksum.
Bytes sealed(std::uint16_t version, std::uint32_t count, std::size_t payload) {
  Bytes bytes(8 + payload);
  std::memcpy(bytes.data(), &version, sizeof version);
  std::memcpy(bytes.data() + 4, &count, sizeof count);
  const std::uint32_t sum = base::adler32(base::kAdler32Start, bytes.data(), bytes.size());
  bytes.resize(bytes.size() + sizeof sum);
  std::memcpy(&*bytes.end() - sizeof sum, &sum, sizeof sum);
  return bytes;
}

class UdcidRecordTest : public testing::Test {
 protected:
  LogCapture log;
};

TEST_F(UdcidRecordTest, has_the_binary_form_that_is_on_disk) {
  Numbers list = kList;
  UDCIDRecord record = wrapping(list);
  EXPECT_EQ(hex_of(record), kListHex);
  UDCIDRecord empty;
  EXPECT_EQ(hex_of(empty), kEmptyHex);
  UDCIDRecord copy(record);
  list.assign(list.size(), 0);
  EXPECT_EQ(hex_of(copy), kListHex) << "a copy has a list of its own";
}

TEST_F(UdcidRecordTest, reads_what_was_written_at_any_alignment_and_keeps_a_later_version) {
  for (std::size_t shift = 0; shift < 8; ++shift) {
    Bytes bytes(shift);
    const Bytes form = from_hex(kListHex);
    bytes.insert(bytes.end(), form.begin(), form.end());
    UDCIDRecord record;
    const auto size = static_cast<unsigned int>(form.size());
    ASSERT_EQ(record.Deserialize(bytes.data() + shift, size), CR_STATUS_OK);
    EXPECT_EQ(entries_of(record), kList);
    UDCIDRecord wrapped(2, bytes.data() + shift + 8);
    EXPECT_EQ(entries_of(wrapped), kList);
  }
  UDCIDRecord later;
  EXPECT_EQ(read(later, sealed(7, 1, 16)), CR_STATUS_OK);
  EXPECT_EQ(later.version, 7);
}

TEST_F(UdcidRecordTest, converts_version_1_in_place_of_what_it_held) {
  UDCIDRecord record;
  ASSERT_EQ(read(record, from_hex(kListHex)), CR_STATUS_OK);
  ASSERT_EQ(read(record, from_hex(kOldHex)), CR_STATUS_OK);
  EXPECT_EQ(entries_of(record), (Numbers{100, 200, 0, 0}));
  EXPECT_EQ(hex_of(record).substr(0, 16), "0200000002000000");
}

TEST_F(UdcidRecordTest, refuses_every_changed_byte_and_every_lost_tail_and_stays_as_it_was) {
  for (const std::string& hex : {kListHex, kOldHex, kEmptyHex}) {
    const Bytes good = from_hex(hex);
    UDCIDRecord record;
    ASSERT_EQ(read(record, from_hex(kListHex)), CR_STATUS_OK);
    for (std::size_t i = 0; i < good.size(); ++i) {
      Bytes flipped = good;
      flipped[i] ^= 0x10;
      EXPECT_EQ(read(record, flipped), CR_STATUS_BAD_DATA) << hex << " at " << i;
      EXPECT_EQ(read(record, Bytes(good.begin(), good.begin() + static_cast<long>(i))),
                CR_STATUS_BAD_DATA)
          << hex << " cut to " << i;
    }
    EXPECT_EQ(entries_of(record), kList);
  }
  log.clear();
  UDCIDRecord record;
  EXPECT_EQ(read(record, {2, 0, 0, 0, 0, 0, 0, 0, 3, 0, 0x18, 1}), CR_STATUS_BAD_DATA);
  log.expect_error(CR_STATUS_BAD_DATA,
                   "Deserialize: udcid data crc mismatch, calculated 1572867, expected 18350083.");
  EXPECT_EQ(read(record, {1, 2, 3}), CR_STATUS_BAD_DATA);
  log.expect_error(CR_STATUS_BAD_DATA, "Deserialize: bufsize 3 is invalid!");
}

TEST_F(UdcidRecordTest, believes_no_count_that_its_size_does_not_bear_out) {
  const Bytes too_short[] = {sealed(2, 1, 0),           sealed(2, 1, 15),
                             sealed(1, 1, 3),           sealed(2, 0x10000000, 16),
                             sealed(2, 0xFFFFFFFF, 16), sealed(1, 0x40000000, 8),
                             sealed(1, 0xFFFFFFFF, 8),  {1, 0, 0, 0},
                             {2, 0, 3, 0, 6, 0}};
  for (const Bytes& bytes : too_short) {
    UDCIDRecord record;
    EXPECT_EQ(read(record, bytes), CR_STATUS_BAD_DATA);
    EXPECT_EQ(record.ndcid, 0U);
    EXPECT_EQ(record.dcids, nullptr);
    log.expect_error(CR_STATUS_BAD_DATA,
                     "Deserialize: bufsize " + std::to_string(bytes.size()) + " is invalid!");
  }
  for (const auto& [version, payload] : {std::pair(2, 16), {2, 17}, {1, 4}, {1, 9}}) {
    UDCIDRecord record;
    const Bytes bytes =
        sealed(static_cast<std::uint16_t>(version), 1, static_cast<std::size_t>(payload));
    EXPECT_EQ(read(record, bytes), CR_STATUS_OK) << version << " with " << payload;
    EXPECT_EQ(record.ndcid, 1U);
  }
}

TEST_F(UdcidRecordTest, refuses_buffers_that_are_missing_or_too_small) {
  Numbers list = kList;
  UDCIDRecord record = wrapping(list);
  unsigned char bytes[44];
  unsigned int size = 43;
  EXPECT_EQ(record.Serialize(bytes, size), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG,
                   "Serialize: buf size 43 is too small, it should be 44 at least.");
  size = 44;
  EXPECT_EQ(record.Serialize(bytes, size), CR_STATUS_OK);
  char text[88];
  EXPECT_EQ(record.toString(text, 88), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG,
                   "toString: buf size 88 is too small, it should be 89 at least.");
  EXPECT_EQ(record.Serialize(nullptr, size), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG, "Serialize: buf is NULL!");
  EXPECT_EQ(record.toString(nullptr, 89), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG, "toString: buf is NULL!");
  EXPECT_EQ(record.Deserialize(nullptr, 12), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG, "Deserialize: buf is NULL!");
}

TEST_F(UdcidRecordTest, survives_a_count_without_a_list) {
  UDCIDRecord bare(0xFFFFFFFF, nullptr);
  UDCIDRecord copy(bare);
  EXPECT_EQ(copy.ndcid, 0xFFFFFFFF);
  EXPECT_TRUE(entries_of(copy).empty());
  unsigned char bytes[64];
  unsigned int size = sizeof bytes;
  copy.ndcid = 1;
  EXPECT_EQ(copy.Serialize(bytes, size), CR_STATUS_BAD_ARG);
  log.expect_error(CR_STATUS_BAD_ARG, "Serialize: dcids is NULL!");
}

TEST_F(UdcidRecordTest, lists_the_distinct_containers_of_the_statistics) {
  for (const auto& [given, listed] : std::vector<std::pair<Numbers, Numbers>>{
           {{300, 100, 300}, {100, 300, 0, 0}}, {{64}, {64, 0}}, {{}, {}}}) {
    _cr_stat_t stat = {static_cast<std::uint32_t>(given.size()), given.data()};
    UDCIDRecord record(&stat);
    EXPECT_EQ(entries_of(record), listed);
  }
  const std::uint64_t invalid[] = {64, 63};
  _cr_stat_t bad = {2, invalid};
  _cr_stat_t without_list = {2, nullptr};
  for (_cr_stat_t* stat : {&bad, &without_list, static_cast<_cr_stat_t*>(nullptr)}) {
    try {
      const UDCIDRecord record(stat);
      ADD_FAILURE() << "accepted";
    } catch (const Cr_ErrnoException& thrown) {
      EXPECT_EQ(thrown.status(), CR_STATUS_BAD_ARG);
    }
  }
  log.expect_error(CR_STATUS_BAD_ARG, "UDCIDRecord: Invalid DCID 63 at index 1.");
  log.expect_error(CR_STATUS_BAD_ARG, "UDCIDRecord: stat is NULL!");
  log.expect_error(CR_STATUS_BAD_ARG, "UDCIDRecord: stat is NULL!");
}

// Within its scope the process gets no more memory from the system.
class NoMoreMemory {
 public:
  NoMoreMemory() {
    getrlimit(RLIMIT_AS, &old_);
    const rlimit none = {1, old_.rlim_max};
    setrlimit(RLIMIT_AS, &none);
  }
  NoMoreMemory(const NoMoreMemory&) = delete;
  NoMoreMemory& operator=(const NoMoreMemory&) = delete;
  ~NoMoreMemory() { setrlimit(RLIMIT_AS, &old_); }

 private:
  rlimit old_{};
};

TEST_F(UdcidRecordTest, reports_a_lack_of_memory) {
  constexpr std::uint32_t kCount = 1U << 22;
  Bytes bytes = sealed(2, kCount, std::size_t{16} * kCount);
  UDCIDRecord whole(kCount, bytes.data() + 8);
  UDCIDRecord record;
  std::string message;
  {
    const NoMoreMemory limit;
    EXPECT_EQ(record.Deserialize(bytes.data(), static_cast<unsigned int>(bytes.size())),
              CR_STATUS_NO_MEMORY);
    try {
      const UDCIDRecord copy(whole);
    } catch (const Cr_ErrnoException& thrown) {
      EXPECT_EQ(thrown.status(), CR_STATUS_NO_MEMORY);
      message = thrown.what();
    }
  }
  EXPECT_EQ(message, "malloc 67108864 size memory for dcid buffer failed.");
  EXPECT_TRUE(entries_of(record).empty()) << "a count, and no list to read beyond";
  for (const char* operation : {"Deserialize", "UDCIDRecord"}) {
    log.expect_error(
        CR_STATUS_NO_MEMORY,
        std::string(operation) + ": malloc 67108864 size memory for dcid buffer failed!");
  }
}

TEST_F(UdcidRecordTest, traces_its_list_when_tracing_is_on) {
  Numbers list = kList;
  UDCIDRecord record = wrapping(list);
  record.Dump();
  EXPECT_TRUE(log.lines().empty());
  refhost::set_log_level(refhost::LogLevel::Trace);
  record.Dump();
  EXPECT_EQ(log.messages(refhost::LogLevel::Trace),
            (std::vector<std::string>{"ndcid = 2", "dcid = 100, datasize = 4096",
                                      "dcid = 1099511627783, datasize = 8589934592"}));
}

}  // namespace
