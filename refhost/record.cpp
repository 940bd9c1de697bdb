#include "refhost/record.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <string_view>

#include "host/po_record.h"
#include "refhost/fail_internal.h"
#include "refhost/record_internal.h"

using refhost::RecordFields;

namespace {

template <class Value>
Value get(const _po_t* record, Value RecordFields::*member) {
  if (record != nullptr) return record->fields.*member;
  refhost::fail(CR_STATUS_BAD_ARG);
  return Value{};
}

const char* get_text(const _po_t* record, std::string RecordFields::*member) {
  if (record != nullptr) return (record->fields.*member).c_str();
  refhost::fail(CR_STATUS_BAD_ARG);
  return nullptr;
}

template <class Value>
int set(_po_t* record, Value RecordFields::*member, Value value) {
  if (record == nullptr) return refhost::refuse(CR_STATUS_BAD_ARG);
  record->fields.*member = std::move(value);
  return 0;
}

// What the library may change without the entry becoming another one.
RecordFields comparable(const RecordFields& fields) {
  RecordFields same = fields;
  same.atime = 0;
  same.special_flags = 0;
  same.dsid = 0;
  same.mod_type = RecordFields().mod_type;
  return same;
}

bool is_lower_hex(char c) { return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f'); }

template <class Predicate>
bool all_of(std::string_view text, Predicate holds) {
  return std::all_of(text.begin(), text.end(), holds);
}

constexpr std::size_t kPoidLength = 64;

}  // namespace

namespace refhost {

int set_fields(_po_t* record, const RecordFields& fields) {
  if (record == nullptr || !parse_record(print_record(fields), record->fields)) {
    return refuse(CR_STATUS_BAD_ARG);
  }
  return 0;
}

RecordFields get_fields(const _po_t* record) { return record->fields; }

}  // namespace refhost

_po_t* POCreate() { return std::make_unique<_po_t>().release(); }

void PODestroy(_po_t* record) { std::unique_ptr<_po_t>{record}.reset(); }

_po_t* POCopy(const _po_t* record) {
  if (record != nullptr) return std::make_unique<_po_t>(*record).release();
  refhost::fail(CR_STATUS_BAD_ARG);
  return nullptr;
}

int POEqualsPO(const _po_t* a, const _po_t* b, int /*flags*/) {
  if (a == nullptr || b == nullptr) {
    refhost::fail(CR_STATUS_BAD_ARG);
    return 0;
  }
  return refhost::print_record(comparable(a->fields)) ==
         refhost::print_record(comparable(b->fields));
}

int POSetFromString(_po_t* record, const char* text) {
  if (record == nullptr || text == nullptr) return refhost::refuse(CR_STATUS_BAD_ARG);
  if (!refhost::parse_record(text, record->fields)) return refhost::refuse(CR_STATUS_BAD_RECORD);
  return 0;
}

char* POToStringMalloced(const _po_t* record) {
  if (record == nullptr) {
    refhost::fail(CR_STATUS_BAD_ARG);
    return nullptr;
  }
  char* const text = strdup(refhost::print_record(record->fields).c_str());
  if (text == nullptr) refhost::fail(CR_STATUS_NO_MEMORY);
  return text;
}

int POGetType(const _po_t* record) { return get(record, &RecordFields::type); }

int POGetModType(const _po_t* record) { return get(record, &RecordFields::mod_type); }

std::uint32_t POGetSpecialFlags(const _po_t* record) {
  return get(record, &RecordFields::special_flags);
}

int POSetSpecialFlags(_po_t* record, std::uint32_t flags) {
  return set(record, &RecordFields::special_flags, flags);
}

std::uint32_t POGetDsid(const _po_t* record) { return get(record, &RecordFields::dsid); }

int POSetDsid(_po_t* record, std::uint32_t dsid) { return set(record, &RecordFields::dsid, dsid); }

// A path without a leading slash starts at the image's root as well.
int POSetPath(_po_t* record, const char* inner_path) {
  const std::string_view path = inner_path == nullptr ? "" : inner_path;
  if (record == nullptr || path.empty() || path.back() == '/') {
    return refhost::refuse(CR_STATUS_BAD_ARG);
  }
  std::string absolute(path.front() == '/' ? "" : "/");
  absolute += path;
  const std::size_t slash = absolute.rfind('/');
  record->fields.leaf = absolute.substr(slash + 1);
  absolute.resize(slash == 0 ? 1 : slash);
  record->fields.directory = std::move(absolute);
  return 0;
}

const char* POGetDirname(const _po_t* record) { return get_text(record, &RecordFields::directory); }

// The reference host spells directories in one way only.
const char* POGetInternalDirname(const _po_t* record) { return POGetDirname(record); }

const char* POGetBasename(const _po_t* record) { return get_text(record, &RecordFields::leaf); }

int POSetDirname(_po_t* record, const char* directory) {
  if (directory == nullptr) return refhost::refuse(CR_STATUS_BAD_ARG);
  return set(record, &RecordFields::directory, std::string(directory));
}

int POSetBasename(_po_t* record, const char* leaf) {
  if (leaf == nullptr || std::strchr(leaf, '/') != nullptr) {
    return refhost::refuse(CR_STATUS_BAD_ARG);
  }
  return set(record, &RecordFields::leaf, std::string(leaf));
}

const char* POGetHashRef(const _po_t* record) { return get_text(record, &RecordFields::poid); }

bool POIDStringValidate(const char* poid) {
  const std::string_view text = poid == nullptr ? "" : poid;
  return text.size() == kPoidLength && all_of(text, is_lower_hex);
}

const char* POGetCdoRef(const _po_t* record) { return get_text(record, &RecordFields::content_fp); }

const char* POGetMdoRef(const _po_t* record) {
  return get_text(record, &RecordFields::metadata_fp);
}

const char* POGetSdoRef(const _po_t* record) { return get_text(record, &RecordFields::special_fp); }

int CRFPIsEmptyFP(const char* fingerprint) {
  return fingerprint == nullptr || all_of(fingerprint, [](char c) { return c == '0'; });
}

std::uint64_t POGetSize(const _po_t* record) { return get(record, &RecordFields::size); }

std::uint64_t POGetAtime(const _po_t* record) { return get(record, &RecordFields::atime); }

int POSetAtime(_po_t* record, std::uint64_t seconds) {
  return set(record, &RecordFields::atime, seconds);
}

std::uint64_t POGetCtime(const _po_t* record) { return get(record, &RecordFields::ctime); }

int POSetStype(_po_t* record, po_stype_t stype) {
  return set(record, &RecordFields::stype, static_cast<int>(stype));
}

int POSetStatus(_po_t* record, po_status_t status) {
  return set(record, &RecordFields::status, static_cast<int>(status));
}
