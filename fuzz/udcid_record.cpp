// Lists of containers from arbitrary bytes: what is taken is within the bytes, and is what was
// written.
#include "uldb/udcid_record.h"

#include <cstring>
#include <vector>

#include "fuzz/property.h"
#include "host/status.h"

namespace {

using Bytes = std::vector<unsigned char>;

// The checksum, computed without the library, so that what lies behind it is reached as well.
void append_checksum(Bytes& bytes) {
  std::uint32_t a = 1;
  std::uint32_t b = 0;
  for (const unsigned char byte : bytes) {
    a = (a + byte) % 65521;
    b = (b + a) % 65521;
  }
  const std::uint32_t sum = b << 16 | a;
  bytes.insert(bytes.end(),
               {static_cast<unsigned char>(sum), static_cast<unsigned char>(sum >> 8),
                static_cast<unsigned char>(sum >> 16), static_cast<unsigned char>(sum >> 24)});
}

cr_status_t read(UDCIDRecord& list, Bytes bytes) {
  bytes.reserve(1);  // no bytes are not a null pointer
  return list.Deserialize(bytes.data(), static_cast<unsigned int>(bytes.size()));
}

Bytes written(UDCIDRecord& list, std::size_t count) {
  Bytes bytes(16 * count + 12);
  auto size = static_cast<unsigned int>(bytes.size());
  require(list.Serialize(bytes.data(), size) == CR_STATUS_OK, "a list that was read is written");
  require(size == bytes.size(), "a written list has 16 bytes an entry and 12 of its own");
  --size;
  require(list.Serialize(bytes.data(), size) == CR_STATUS_BAD_ARG, "one byte less is too small");
  return bytes;
}

std::size_t count_and_compare(UDCIDRecord& list, const Bytes& bytes) {
  const bool old = bytes[0] == 1 && bytes[1] == 0;
  std::uint32_t n = 0;
  std::memcpy(&n, bytes.data() + 4, sizeof n);
  require(bytes.size() >= 12 + std::uint64_t{n} * (old ? 4 : 16), "the entries lie in the bytes");
  unsigned long dcid = 0;
  unsigned long size = 0;
  unsigned int index = 0;
  while (list.get_next(dcid, size, index) == CR_STATUS_OK) {
    const std::size_t i = index - 1;
    std::uint64_t expected[2] = {0, 0};
    std::memcpy(&expected[0], bytes.data() + 8 + i * (old ? 4 : 8), old ? 4 : 8);
    if (!old) std::memcpy(&expected[1], bytes.data() + 8 + (n + i) * 8, 8);
    require(dcid == expected[0] && size == expected[1], "the entries are those of the bytes");
  }
  require(index == n, "the walk ends after the last entry");
  return n;
}

void compare_text(UDCIDRecord& list, const Bytes& binary) {
  std::string text(2 * binary.size() + 1, 'x');
  const auto size = static_cast<unsigned int>(text.size());
  require(list.toString(text.data(), size) == CR_STATUS_OK, "the text fits");
  for (std::size_t i = 0; i < binary.size(); ++i) {
    require(std::stoul(text.substr(2 * i, 2), nullptr, 16) == binary[i], "the text is the bytes");
  }
}

}  // namespace

// The first byte says whether the checksum is set right.
int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0) return 0;
  scratch();
  Bytes bytes(data + 1, data + size);
  if (data[0] % 2 != 0) append_checksum(bytes);
  UDCIDRecord list;
  const cr_status_t status = read(list, bytes);
  require(status == CR_STATUS_OK || status == CR_STATUS_BAD_DATA, "bytes are a list or bad data");
  if (status != CR_STATUS_OK) return 0;
  const Bytes again = written(list, count_and_compare(list, bytes));
  compare_text(list, again);
  UDCIDRecord copy;
  require(read(copy, again) == CR_STATUS_OK, "a written list is read");
  require(written(copy, (again.size() - 12) / 16) == again,
          "writing a second time changes nothing");
  if (bytes.size() != again.size() || bytes[2] != 0 || bytes[3] != 0) return 0;
  require(bytes == again || bytes[0] == 1, "a list of today's form is written as it was read");
  return 0;
}
