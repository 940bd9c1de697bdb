// Entries for tests: their fields, their text forms, and records that free themselves.
#pragma once

#include <cstdlib>
#include <memory>

#include "host/po_record.h"
#include "refhost/record.h"

struct RecordDeleter {
  void operator()(_po_t* record) const { PODestroy(record); }
};
using RecordPtr = std::unique_ptr<_po_t, RecordDeleter>;

inline RecordPtr make_record(const refhost::RecordFields& fields = {}) {
  RecordPtr record(POCreate());
  refhost::set_fields(record.get(), fields);
  return record;
}

// The record's text form.
inline std::string text_of(const _po_t* record) {
  const std::unique_ptr<char, decltype(&std::free)> text(POToStringMalloced(record), &std::free);
  return text ? text.get() : "";
}
inline std::string text_of(const refhost::RecordFields& fields) {
  return text_of(make_record(fields).get());
}

// A well-formed POID, another one for every number.
inline std::string make_poid(std::uint64_t number) {
  std::string digits = std::to_string(number);
  return std::string(64 - digits.size(), 'a') + digits;
}

// A file entry, located at `directory`/`leaf` inside its image; a file of size 0 may have no POID.
inline refhost::RecordFields file_fields(const std::string& leaf, const std::string& poid = "",
                                         std::uint64_t size = 0,
                                         const std::string& directory = "/") {
  refhost::RecordFields fields;
  fields.directory = directory;
  fields.leaf = leaf;
  fields.poid = poid;
  fields.size = size;
  fields.mode = 0100644;
  return fields;
}
inline std::string file_text(const std::string& leaf, const std::string& poid = "",
                             std::uint64_t size = 0, const std::string& directory = "/") {
  return text_of(file_fields(leaf, poid, size, directory));
}

// A directory entry.
inline refhost::RecordFields dir_fields(const std::string& leaf,
                                        const std::string& directory = "/") {
  refhost::RecordFields fields = file_fields(leaf, "", 0, directory);
  fields.type = PO_TYPE_DIR;
  fields.mode = 040755;
  return fields;
}
