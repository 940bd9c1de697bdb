// The binary form and its hexadecimal text.
#include <algorithm>
#include <cstring>

#include "base/adler32.h"
#include "host/log.h"
#include "uldb/udcid_list_internal.h"
#include "uldb/udcid_record.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "lists are stored as they lie in memory");

namespace {

constexpr std::size_t kReservedAt = 2;
constexpr std::size_t kCountAt = 4;
constexpr std::uint64_t kOldEntrySize = 4;
constexpr std::uint16_t kOldVersion = 1;
constexpr std::uint16_t kVersion = 2;

std::uint64_t text_size(std::uint32_t n) { return 2 * udcid_binary_size(n) + 1; }

template <typename Number>
void put_number(unsigned char* bytes, Number number) {
  std::memcpy(bytes, &number, sizeof number);
}

cr_status_t refuse_null_buffer(const char* operation) {
  ErrorA(CR_STATUS_BAD_ARG, "%s: buf is NULL!", operation);
  return CR_STATUS_BAD_ARG;
}

cr_status_t refuse_small_buffer(const char* operation, unsigned int size, std::uint64_t needed) {
  ErrorA(CR_STATUS_BAD_ARG, "%s: buf size %u is too small, it should be %lu at least.", operation,
         size, static_cast<unsigned long>(needed));
  return CR_STATUS_BAD_ARG;
}

cr_status_t refuse_binary_size(unsigned int size) {
  ErrorA(CR_STATUS_BAD_DATA, "%s: bufsize %u is invalid!", "Deserialize", size);
  return CR_STATUS_BAD_DATA;
}

cr_status_t check_binary(const unsigned char* buf, unsigned int size) {
  if (buf == nullptr) return refuse_null_buffer("Deserialize");
  if (size < kUdcidChecksumSize) return refuse_binary_size(size);
  const std::size_t summed = size - kUdcidChecksumSize;
  const std::uint32_t calculated = base::adler32(base::kAdler32Start, buf, summed);
  const auto expected = number_at<std::uint32_t>(buf + summed);
  if (calculated != expected) {
    ErrorA(CR_STATUS_BAD_DATA, "%s: udcid data crc mismatch, calculated %u, expected %u.",
           "Deserialize", calculated, expected);
    return CR_STATUS_BAD_DATA;
  }
  // A matching checksum does not make the count true.
  if (size < kUdcidFrameSize) return refuse_binary_size(size);
  const bool old = number_at<std::uint16_t>(buf) == kOldVersion;
  const std::uint64_t entries = number_at<std::uint32_t>(buf + kCountAt);
  const std::uint64_t needed = kUdcidFrameSize + entries * (old ? kOldEntrySize : kUdcidEntrySize);
  return size < needed ? refuse_binary_size(size) : CR_STATUS_OK;
}

// A list of that version has no sizes.
void widen_old_list(std::uint64_t* dcids, const unsigned char* list, std::uint32_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    dcids[i] = number_at<std::uint32_t>(list + i * kOldEntrySize);
  }
  std::fill_n(dcids + n, n, 0);
}

// Bytes that are turned into text at once: as many as compilers take without a loop.
constexpr unsigned int kHexStep = 16;

// "0123456789ABCDEF"[digit], reckoned: compilers do so for several digits at once.
unsigned char hex_digit(unsigned int digit) {
  return static_cast<unsigned char>(digit + '0' + (digit > 9 ? 'A' - '9' - 1 : 0));
}

// Writes the text of `Count` bytes, which it may overlap, and returns its end.
template <unsigned int Count>
char* put_hex(char* out, const unsigned char* bytes) {
  unsigned char text[2 * Count];
  for (unsigned int i = 0; i < Count; ++i) {
    text[2 * i] = hex_digit(bytes[i] >> 4);
    text[2 * i + 1] = hex_digit(bytes[i] & 0xF);
  }
  std::memcpy(out, text, sizeof text);
  return out + sizeof text;
}

}  // namespace

cr_status_t UDCIDRecord::Serialize(unsigned char* buf, unsigned int& size) {
  if (buf == nullptr) return refuse_null_buffer("Serialize");
  if (dcids == nullptr && ndcid > 0) {
    ErrorA(CR_STATUS_BAD_ARG, "%s: dcids is NULL!", "Serialize");
    return CR_STATUS_BAD_ARG;
  }
  const std::uint64_t needed = udcid_binary_size(ndcid);
  if (size < needed) return refuse_small_buffer("Serialize", size, needed);
  put_number(buf, version);
  put_number(buf + kReservedAt, reserved);
  put_number(buf + kCountAt, ndcid);
  if (ndcid > 0) {
    std::memcpy(buf + kUdcidListAt, static_cast<const void*>(dcids), udcid_list_size(ndcid));
  }
  const std::size_t summed = needed - kUdcidChecksumSize;
  put_number(buf + summed, base::adler32(base::kAdler32Start, buf, summed));
  size = static_cast<unsigned int>(needed);
  return CR_STATUS_OK;
}

cr_status_t UDCIDRecord::Deserialize(unsigned char* buf, unsigned int size) {
  const cr_status_t status = check_binary(buf, size);
  if (status != CR_STATUS_OK) return status;
  // First of all, so that no count ever stands beside a shorter list.
  release_buffer();
  version = number_at<std::uint16_t>(buf);
  ndcid = number_at<std::uint32_t>(buf + kCountAt);
  dcids = allocated_udcid_list("Deserialize", ndcid);
  if (dcids == nullptr) return CR_STATUS_NO_MEMORY;
  owns_buffer = true;
  if (version == kOldVersion) {
    widen_old_list(dcids, buf + kUdcidListAt, ndcid);
    version = kVersion;
    if (TraceOn()) __Trace("Old version 1 of UDCID record, converted to version 2");
  } else if (ndcid > 0) {
    std::memcpy(dcids, buf + kUdcidListAt, udcid_list_size(ndcid));
  }
  return CR_STATUS_OK;
}

cr_status_t UDCIDRecord::toString(char* buf, unsigned int size) {
  if (buf == nullptr) return refuse_null_buffer("toString");
  const std::uint64_t needed = text_size(ndcid);
  if (size < needed) return refuse_small_buffer("toString", size, needed);
  auto bytes = static_cast<unsigned int>(udcid_binary_size(ndcid));
  auto* binary = reinterpret_cast<unsigned char*>(buf) + (size - bytes);
  const cr_status_t status = Serialize(binary, bytes);
  if (status != CR_STATUS_OK) return status;
  // The text grows from the front towards the bytes at the back and never overtakes them.
  char* out = buf;
  unsigned int done = 0;
  for (; done + kHexStep <= bytes; done += kHexStep) out = put_hex<kHexStep>(out, binary + done);
  for (; done < bytes; ++done) out = put_hex<1>(out, binary + done);
  *out = '\0';
  return CR_STATUS_OK;
}
