#include "uldb/udcid_record.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <set>

#include "base/adler32.h"
#include "host/log.h"

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "lists are stored as they lie in memory");

namespace {

// The binary form: version, reserved and count, then the list, then the checksum.
constexpr std::size_t kReservedAt = 2;
constexpr std::size_t kCountAt = 4;
constexpr std::size_t kListAt = 8;
constexpr std::size_t kChecksumSize = 4;
constexpr std::uint64_t kFrameSize = kListAt + kChecksumSize;
constexpr std::uint64_t kEntrySize = 16;
constexpr std::uint64_t kOldEntrySize = 4;
constexpr std::uint16_t kOldVersion = 1;
constexpr std::uint16_t kVersion = 2;

// Identifiers below this are never given to a container.
constexpr std::uint64_t kFirstDcid = 64;

std::uint64_t list_size(std::uint32_t n) { return n * kEntrySize; }
std::uint64_t binary_size(std::uint32_t n) { return kFrameSize + list_size(n); }
std::uint64_t text_size(std::uint32_t n) { return 2 * binary_size(n) + 1; }

// Buffers of callers are aligned to nothing.
template <typename Number>
Number number_at(const unsigned char* bytes) {
  Number number;
  std::memcpy(&number, bytes, sizeof number);
  return number;
}

template <typename Number>
void put_number(unsigned char* bytes, Number number) {
  std::memcpy(bytes, &number, sizeof number);
}

// For the texts that print a size in 32 bits.
unsigned int printable(std::uint64_t size) {
  constexpr std::uint64_t kLargest = std::numeric_limits<unsigned int>::max();
  return static_cast<unsigned int>(std::min(size, kLargest));
}

// A zeroed list of n entries; an empty one needs no buffer. Null, after a log line, when there is
// no memory.
std::uint64_t* allocated_list(const char* operation, std::uint32_t n) {
  auto* list = static_cast<std::uint64_t*>(std::calloc(n, kEntrySize));
  if (list == nullptr && n > 0) {
    ErrorA(CR_STATUS_NO_MEMORY, "%s: malloc %u size memory for dcid buffer failed!", operation,
           printable(list_size(n)));
  }
  return list;
}

std::uint64_t* list_or_throw(std::uint32_t n) {
  std::uint64_t* list = allocated_list("UDCIDRecord", n);
  if (list != nullptr || n == 0) return list;
  char text[256];
  std::snprintf(text, sizeof text, "malloc %u size memory for dcid buffer failed.",
                printable(list_size(n)));
  throw Cr_ErrnoException(CR_STATUS_NO_MEMORY, text, nullptr);
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

// The statistics name a list, if only an empty one. A record made from nothing would claim that the
// content uses no container.
void check_statistics(const _cr_stat_t* stat) {
  if (stat != nullptr && (stat->so_dcid != nullptr || stat->so_count == 0)) return;
  ErrorA(CR_STATUS_BAD_ARG, "%s: stat is NULL!", "UDCIDRecord");
  throw Cr_ErrnoException(CR_STATUS_BAD_ARG, "No DCIDs were given when creating a UDCIDRecord",
                          nullptr);
}

std::set<std::uint64_t> distinct_dcids(const _cr_stat_t& stat) {
  std::set<std::uint64_t> distinct;
  for (std::uint32_t i = 0; i < stat.so_count; ++i) {
    const std::uint64_t dcid = stat.so_dcid[i];
    if (dcid < kFirstDcid) {
      ErrorA(CR_STATUS_BAD_ARG, "%s: Invalid DCID %lu at index %u.", "UDCIDRecord", dcid, i);
      throw Cr_ErrnoException(CR_STATUS_BAD_ARG,
                              "Invalid DCID was detected when creating a UDCIDRecord object",
                              nullptr);
    }
    distinct.insert(dcid);
  }
  return distinct;
}

cr_status_t check_binary(const unsigned char* buf, unsigned int size) {
  if (buf == nullptr) return refuse_null_buffer("Deserialize");
  if (size < kChecksumSize) return refuse_binary_size(size);
  const std::size_t summed = size - kChecksumSize;
  const std::uint32_t calculated = base::adler32(base::kAdler32Start, buf, summed);
  const auto expected = number_at<std::uint32_t>(buf + summed);
  if (calculated != expected) {
    ErrorA(CR_STATUS_BAD_DATA, "%s: udcid data crc mismatch, calculated %u, expected %u.",
           "Deserialize", calculated, expected);
    return CR_STATUS_BAD_DATA;
  }
  // A matching checksum does not make the count true.
  if (size < kFrameSize) return refuse_binary_size(size);
  const bool old = number_at<std::uint16_t>(buf) == kOldVersion;
  const std::uint64_t entries = number_at<std::uint32_t>(buf + kCountAt);
  const std::uint64_t needed = kFrameSize + entries * (old ? kOldEntrySize : kEntrySize);
  return size < needed ? refuse_binary_size(size) : CR_STATUS_OK;
}

void widen_old_list(std::uint64_t* dcids, const unsigned char* list, std::uint32_t n) {
  for (std::size_t i = 0; i < n; ++i) {
    dcids[i] = number_at<std::uint32_t>(list + i * kOldEntrySize);
  }
}

}  // namespace

// The values are read byte by byte, so the caller's buffer may lie anywhere.
UDCIDRecord::UDCIDRecord(unsigned int n, unsigned char* buf)
    : ndcid(n), dcids(reinterpret_cast<std::uint64_t*>(buf)) {}

UDCIDRecord::UDCIDRecord(const UDCIDRecord& other)
    : ndcid(other.ndcid), reserved(other.reserved), version(other.version), owns_buffer(true) {
  if (other.dcids == nullptr || ndcid == 0) return;
  dcids = list_or_throw(ndcid);
  std::memcpy(dcids, static_cast<const void*>(other.dcids), list_size(ndcid));
}

// Delegates, so that the list is freed whatever is thrown after it was made.
UDCIDRecord::UDCIDRecord(_cr_stat_t* stat) : UDCIDRecord() {
  owns_buffer = true;
  check_statistics(stat);
  const bool tracing = TraceOn();
  if (tracing) __Trace("%s: Total SO number =%d", "UDCIDRecord", stat->so_count);
  const std::set<std::uint64_t> distinct = distinct_dcids(*stat);
  ndcid = static_cast<std::uint32_t>(distinct.size());
  if (tracing) __Trace("%s: UDCID number =%d", "UDCIDRecord", ndcid);
  dcids = list_or_throw(ndcid);
  std::copy(distinct.begin(), distinct.end(), dcids);
  for (const std::uint64_t dcid : distinct) {
    if (tracing) __Trace("%s: UDCID list dcid=%lu.", "UDCIDRecord", dcid);
  }
}

UDCIDRecord::~UDCIDRecord() { release_buffer(); }

void UDCIDRecord::release_buffer() {
  if (owns_buffer) std::free(dcids);
  dcids = nullptr;
}

cr_status_t UDCIDRecord::Serialize(unsigned char* buf, unsigned int& size) {
  if (buf == nullptr) return refuse_null_buffer("Serialize");
  if (dcids == nullptr && ndcid > 0) {
    ErrorA(CR_STATUS_BAD_ARG, "%s: dcids is NULL!", "Serialize");
    return CR_STATUS_BAD_ARG;
  }
  const std::uint64_t needed = binary_size(ndcid);
  if (size < needed) return refuse_small_buffer("Serialize", size, needed);
  put_number(buf, version);
  put_number(buf + kReservedAt, reserved);
  put_number(buf + kCountAt, ndcid);
  if (ndcid > 0) {
    std::memcpy(buf + kListAt, static_cast<const void*>(dcids), list_size(ndcid));
  }
  const std::size_t summed = needed - kChecksumSize;
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
  dcids = allocated_list("Deserialize", ndcid);
  if (dcids == nullptr && ndcid > 0) return CR_STATUS_NO_MEMORY;
  owns_buffer = true;
  if (version == kOldVersion) {
    widen_old_list(dcids, buf + kListAt, ndcid);
    version = kVersion;
    if (TraceOn()) __Trace("Old version 1 of UDCID record, converted to version 2");
  } else if (ndcid > 0) {
    std::memcpy(dcids, buf + kListAt, list_size(ndcid));
  }
  return CR_STATUS_OK;
}

cr_status_t UDCIDRecord::toString(char* buf, unsigned int size) {
  if (buf == nullptr) return refuse_null_buffer("toString");
  const std::uint64_t needed = text_size(ndcid);
  if (size < needed) return refuse_small_buffer("toString", size, needed);
  auto bytes = static_cast<unsigned int>(binary_size(ndcid));
  auto* binary = reinterpret_cast<unsigned char*>(buf) + (size - bytes);
  const cr_status_t status = Serialize(binary, bytes);
  if (status != CR_STATUS_OK) return status;
  // The text grows from the front towards the bytes at the back and never overtakes them.
  constexpr char kDigits[] = "0123456789ABCDEF";
  char* out = buf;
  for (unsigned int i = 0; i < bytes; ++i) {
    const unsigned char byte = binary[i];
    *out++ = kDigits[byte >> 4];
    *out++ = kDigits[byte & 0xF];
  }
  *out = '\0';
  return CR_STATUS_OK;
}

cr_status_t UDCIDRecord::get_next(unsigned long& dcid, unsigned long& datasize,
                                  unsigned int& index) {
  if (index >= ndcid || dcids == nullptr) return CR_STATUS_NOT_FOUND;
  const auto* bytes = reinterpret_cast<const unsigned char*>(dcids);
  const std::size_t at = index;
  dcid = number_at<std::uint64_t>(bytes + at * sizeof(std::uint64_t));
  datasize = number_at<std::uint64_t>(bytes + (ndcid + at) * sizeof(std::uint64_t));
  ++index;
  return CR_STATUS_OK;
}

void UDCIDRecord::Dump() {
  if (!TraceOn()) return;
  __Trace("ndcid = %u", ndcid);
  unsigned long dcid = 0;
  unsigned long datasize = 0;
  unsigned int index = 0;
  while (TraceOn() && get_next(dcid, datasize, index) == CR_STATUS_OK) {
    __Trace("dcid = %lu, datasize = %lu", dcid, datasize);
  }
}
