// The list of data containers of one content, and its binary form.
#pragma once

#include <cstdint>

#include "base/export.h"
#include "host/po_record.h"
#include "host/status.h"

// The data containers (DCIDs) that one content uses, each with the bytes that it holds of it. Lies
// in one buffer of 2n 64-bit values: n identifiers, then n sizes. The record either owns that
// buffer (from malloc) or wraps a caller's, which must outlive it. One thread at a time.
//
// Binary form, little-endian, 12 + 16n bytes:
//   offset  size  field
//   0       2     version, 2
//   2       2     reserved, 0
//   4       4     n
//   8       8n    the DCIDs
//   8 + 8n  8n    the data sizes, in the same order
//   8 + 16n 4     Adler-32 of all bytes before it
// Version 1, read only: 32-bit DCIDs (4n bytes) and no sizes.
class POCATALOG_API UDCIDRecord {
 public:
  UDCIDRecord() = default;

  // Wraps `buf`, 2n 64-bit values, which stays the caller's. Null makes a record that has a count
  // only: get_next answers CR_STATUS_NOT_FOUND and Serialize CR_STATUS_BAD_ARG.
  UDCIDRecord(unsigned int n, unsigned char* buf);

  // A deep copy that owns its buffer. Throws Cr_ErrnoException, CR_STATUS_NO_MEMORY.
  UDCIDRecord(const UDCIDRecord& other);
  UDCIDRecord& operator=(const UDCIDRecord&) = delete;

  // The distinct containers of `stat`, ascending, with sizes 0. Throws Cr_ErrnoException:
  // CR_STATUS_BAD_ARG for an identifier below 64, and for a null `stat` or one that counts
  // identifiers but lacks them: an empty list would free containers in use. CR_STATUS_NO_MEMORY.
  explicit UDCIDRecord(_cr_stat_t* stat);

  ~UDCIDRecord();

  // Writes the binary form; `size` is the capacity of `buf` and becomes the bytes written.
  // CR_STATUS_BAD_ARG when `buf` is null or too small.
  cr_status_t Serialize(unsigned char* buf, unsigned int& size);

  // Replaces the content by what `size` bytes at `buf` (any alignment) say; bytes between the list
  // and the checksum are accepted. `reserved` stays. CR_STATUS_BAD_ARG for null, CR_STATUS_BAD_DATA
  // for a wrong size or checksum: the record is as it was. CR_STATUS_NO_MEMORY: it has the new
  // version and count, and no list.
  cr_status_t Deserialize(unsigned char* buf, unsigned int size);

  // Writes the binary form as upper-case hexadecimal text, 32n + 25 bytes with its terminator.
  // CR_STATUS_BAD_ARG when `buf` is null or too small.
  cr_status_t toString(char* buf, unsigned int size);

  // Entry `index`, and on to the next; start with 0. CR_STATUS_NOT_FOUND after the last.
  cr_status_t get_next(unsigned long& dcid, unsigned long& datasize, unsigned int& index);

  // Traces the list, when tracing is on.
  void Dump();

  std::uint32_t ndcid = 0;
  std::uint64_t* dcids = nullptr;
  std::uint16_t reserved = 0;
  std::uint16_t version = 2;
  bool owns_buffer = false;

 private:
  void release_buffer();
};
