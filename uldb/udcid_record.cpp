// Construction and the walk over the entries.
#include "uldb/udcid_record.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <set>

#include "host/log.h"
#include "uldb/udcid_list_internal.h"

namespace {

// Identifiers below this are never given to a container.
constexpr std::uint64_t kFirstDcid = 64;

std::uint64_t* list_or_throw(std::uint32_t n) {
  std::uint64_t* list = allocated_udcid_list("UDCIDRecord", n);
  if (list != nullptr) return list;
  char text[256];
  std::snprintf(text, sizeof text, "malloc %u size memory for dcid buffer failed.",
                printable_size(udcid_list_size(n)));
  throw Cr_ErrnoException(CR_STATUS_NO_MEMORY, text, nullptr);
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

}  // namespace

std::uint64_t* allocated_udcid_list(const char* operation, std::uint32_t n) {
  const std::uint64_t size = std::max(udcid_list_size(n), std::uint64_t{1});  // none may be null
  auto* list = static_cast<std::uint64_t*>(std::malloc(size));
  if (list == nullptr) {
    ErrorA(CR_STATUS_NO_MEMORY, "%s: malloc %u size memory for dcid buffer failed!", operation,
           printable_size(udcid_list_size(n)));
  }
  return list;
}

// The values are read byte by byte, so the caller's buffer may lie anywhere.
UDCIDRecord::UDCIDRecord(unsigned int n, unsigned char* buf)
    : ndcid(n), dcids(reinterpret_cast<std::uint64_t*>(buf)) {}

UDCIDRecord::UDCIDRecord(const UDCIDRecord& other)
    : ndcid(other.ndcid), reserved(other.reserved), version(other.version), owns_buffer(true) {
  if (other.dcids == nullptr || ndcid == 0) return;
  dcids = list_or_throw(ndcid);
  std::memcpy(dcids, static_cast<const void*>(other.dcids), udcid_list_size(ndcid));
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
  std::fill_n(dcids + ndcid, ndcid, 0);
  for (const std::uint64_t dcid : distinct) {
    if (tracing) __Trace("%s: UDCID list dcid=%lu.", "UDCIDRecord", dcid);
  }
}

UDCIDRecord::~UDCIDRecord() { release_buffer(); }

void UDCIDRecord::release_buffer() {
  if (owns_buffer) std::free(dcids);
  dcids = nullptr;
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
