// The fields of the reference host's path-object record, for programs that make entries and show
// them.
//
// The text form is one line of 29 fields with '|' between them:
//
//   |  # | field           | kind   | meaning                                                    |
//   |----|-----------------|--------|------------------------------------------------------------|
//   |  1 | dsid            | number | data-store id                                              |
//   |  2 | directory       | text   | directory inside the image; the root is "/"                |
//   |  3 | leaf            | text   | last component of the path; holds no "/"                   |
//   |  4 | type            | number | PO_TYPE_FILE, PO_TYPE_DIR; others are refused further up   |
//   |  5 | poid            | text   | POID of a file's content: 64 lower-case hex digits         |
//   |  6 | content_fp      | text   | content fingerprint (CDO)                                  |
//   |  7 | metadata_fp     | text   | metadata fingerprint (MDO)                                 |
//   |  8 | special_fp      | text   | special-data fingerprint (SDO)                             |
//   |  9 | stype           | number | po_stype_t                                                 |
//   | 10 | mod_type        | code   | modification type, one letter or digit; 'D' deletes        |
//   | 11 | size            | number | bytes                                                      |
//   | 12 | mode            | octal  | st_mode; "0", or a leading 0 and the digits                |
//   | 13 | status          | number | po_status_t                                                |
//   | 14 | owner           | text   | "uid:gid"                                                  |
//   | 15 | carried_15      | text   | carried                                                    |
//   | 16 | mtime           | number | modification time, seconds since the epoch                 |
//   | 17 | ctime           | number | change time                                                |
//   | 18 | atime           | number | access time; holds the retention lock                      |
//   | 19 | carried_19      | text   | carried                                                    |
//   | 20 | carried_20 .. 22| text   | carried, three fields                                      |
//   | 23 | special_flags   | number | SF_ bits                                                   |
//   | 24 | carried_24 .. 29| text   | carried, six fields                                        |
//
// Numbers are decimal without leading zeros, plus or blanks. In texts '|', '%' and the bytes
// 0x01-0x1f and 0x7f are written as "%XX" in upper-case hex, and no other byte is. A text is
// accepted only when printing what it says gives the same bytes. docs/record.md has an example in
// bytes.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "host/api.h"
#include "host/po_record.h"

namespace refhost {

inline constexpr std::size_t kRecordFields = 29;
inline constexpr std::size_t kCarriedFields = 11;

// The contents of a record; as constructed, those of POCreate. Carried fields stand in the order of
// the text form.
struct RecordFields {
  std::uint32_t dsid = 0;
  std::string directory;
  std::string leaf;
  int type = PO_TYPE_FILE;
  std::string poid;
  std::string content_fp;
  std::string metadata_fp;
  std::string special_fp;
  int stype = 0;
  char mod_type = 'N';
  std::uint64_t size = 0;
  std::uint32_t mode = 0;
  int status = 0;
  std::string owner;
  std::uint64_t mtime = 0;
  std::uint64_t ctime = 0;
  std::uint64_t atime = 0;
  std::uint32_t special_flags = 0;
  std::array<std::string, kCarriedFields> carried = {"260", "1024", "",   "",  "", "",
                                                     "",    "0",    "64", "0", "0"};
};

// One field with its name, and its value as the text form writes it.
struct NamedField {
  const char* name;
  std::string text;
};

// Replaces everything in the record. -1 with CR_STATUS_BAD_ARG, and the record as it was, when it
// is null or the text form cannot express the fields: a "/" in the leaf, a NUL in a text, a
// modification type that is neither letter nor digit.
HOST_API int set_fields(_po_t* record, const RecordFields& fields);

// A copy of everything in the record, which is not null.
HOST_API RecordFields get_fields(const _po_t* record);

// All fields in the order of the text form; joined with '|' they are the text form.
HOST_API std::vector<NamedField> named_fields(const _po_t* record);

}  // namespace refhost
