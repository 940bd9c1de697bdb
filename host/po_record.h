// The host's path-object record: one entry of a backup image's catalog.
//
// Every setter returns 0, or -1 with a status in the status cell. Strings that a getter returns
// belong to the record and live until it is changed or destroyed. A record is used by one thread at
// a time.
#pragma once

#include <cstdint>

#include "host/api.h"
#include "host/status.h"

// Opaque; handled through the functions below only.
struct _po_t;

// Content statistics of a file: the data containers that it uses, duplicates included.
struct _cr_stat_t {
  std::uint32_t so_count;        // number of storage objects
  const std::uint64_t* so_dcid;  // that many container identifiers; may be null when there are none
};

// Statistics of a data store. Changed with modulo arithmetic: a counter below 0 wraps.
struct ds_info_t {
  std::uint64_t total_size;  // bytes in all files
  std::uint64_t dir_count;
  std::uint64_t file_count;
};

// Passed through unchanged by the library.
enum po_stype_t : int { PO_STYPE_NONE = 0 };
enum po_status_t : int { PO_STATUS_NONE = 0 };

// Record types, as POGetType returns them.
inline constexpr int PO_TYPE_FILE = 0;
inline constexpr int PO_TYPE_DIR = 1;

// The modification code that means delete; every other code means add or modify.
inline constexpr int PO_MODTYPE_DELETE = 'D';

// Bits of the special-flag word.
inline constexpr std::uint32_t SF_IMMUTABLE = 0x2000000;       // an entry of an immutable image
inline constexpr std::uint32_t SF_RETENTION_LOCK = 0x4000000;  // the access time is a lock
inline constexpr std::uint32_t SF_CLOUDLSU = 0x40000000;       // the image lives on cloud storage

extern "C" {

// A new, empty record of type file, or null.
HOST_API _po_t* POCreate();

// Frees the record; null is allowed.
HOST_API void PODestroy(_po_t* record);

// A deep copy, or null.
HOST_API _po_t* POCopy(const _po_t* record);

// Non-zero when the two records describe the same entry. `flags` is 0.
HOST_API int POEqualsPO(const _po_t* a, const _po_t* b, int flags);

// Parses the one-line text form into the record. -1 when the text is not in that form; the record
// is then as it was.
HOST_API int POSetFromString(_po_t* record, const char* text);

// The text form in a buffer from `malloc` that the caller frees, or null. Parsing it and printing
// again gives the same bytes.
HOST_API char* POToStringMalloced(const _po_t* record);

// PO_TYPE_FILE, PO_TYPE_DIR, or a value that the library refuses.
HOST_API int POGetType(const _po_t* record);

// The modification code of an update, PO_MODTYPE_DELETE or another character.
HOST_API int POGetModType(const _po_t* record);

// The special-flag word (SF_ bits; others are carried).
HOST_API std::uint32_t POGetSpecialFlags(const _po_t* record);
HOST_API int POSetSpecialFlags(_po_t* record, std::uint32_t flags);

// The data-store id.
HOST_API std::uint32_t POGetDsid(const _po_t* record);
HOST_API int POSetDsid(_po_t* record, std::uint32_t dsid);

// Sets directory and leaf from a path inside the image, "/dir/.../leaf". The path is copied.
HOST_API int POSetPath(_po_t* record, const char* inner_path);

// The directory, plain and in the host's internal spelling, and the leaf. The image's root
// directory is "/". A record that never had a path answers empty texts or null.
HOST_API const char* POGetDirname(const _po_t* record);
HOST_API const char* POGetInternalDirname(const _po_t* record);
HOST_API const char* POGetBasename(const _po_t* record);
HOST_API int POSetDirname(_po_t* record, const char* directory);
HOST_API int POSetBasename(_po_t* record, const char* leaf);

// The POID of a file's content: empty, or null, when it has none.
HOST_API const char* POGetHashRef(const _po_t* record);

// True when the text is a well-formed POID.
HOST_API bool POIDStringValidate(const char* poid);

// The fingerprints of content, metadata and special data; empty, or null, when absent.
HOST_API const char* POGetCdoRef(const _po_t* record);
HOST_API const char* POGetMdoRef(const _po_t* record);
HOST_API const char* POGetSdoRef(const _po_t* record);

// Non-zero for the empty fingerprint, null and empty texts included.
HOST_API int CRFPIsEmptyFP(const char* fingerprint);

// The file's size in bytes.
HOST_API std::uint64_t POGetSize(const _po_t* record);

// Access and change times, seconds since the epoch. The retention lock lives in the access time.
HOST_API std::uint64_t POGetAtime(const _po_t* record);
HOST_API int POSetAtime(_po_t* record, std::uint64_t seconds);
HOST_API std::uint64_t POGetCtime(const _po_t* record);

// Set the record's stype and status.
HOST_API int POSetStype(_po_t* record, po_stype_t stype);
HOST_API int POSetStatus(_po_t* record, po_status_t status);

}  // extern "C"
