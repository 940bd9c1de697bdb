#include "cli/row_faults.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <memory>

#include "host/po_record.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

using Faults = std::vector<std::string>;

struct DestroyRecord {
  void operator()(_po_t* record) const { PODestroy(record); }
};
using Record = std::unique_ptr<_po_t, DestroyRecord>;

// The host takes a text only if the record prints as that again.
Record parsed(const std::string& text) {
  Record record(POCreate());
  if (record && POSetFromString(record.get(), text.c_str()) != 0) record.reset();
  return record;
}

// Whether the columns are what checksum and record can be computed from at all.
Faults column_faults(const RawRow& row) {
  Faults faults;
  check_text("basename", row.basename, &faults);
  check_text("poid", row.poid, &faults);
  check_text("content", row.content, &faults);
  if (row.crc_type != SQLITE_INTEGER) {
    faults.push_back(fmt::format("crc is {}, not an integer", type_name(row.crc_type)));
  }
  return faults;
}

void check_name(const std::string& name, Faults* faults) {
  if (name.empty()) faults->emplace_back("basename is empty");
  if (name.find('/') != std::string::npos) faults->emplace_back("basename holds a '/'");
  if (name == "." || name == "..") faults->emplace_back("basename is no name of a file");
}

void check_checksum(const RawRow& row, Faults* faults) {
  const std::uint32_t computed = SQLitePODB::calculate_crc(
      row.basename.bytes.c_str(), row.poid.bytes.c_str(), row.content.bytes.c_str());
  if (row.crc == computed) return;
  faults->push_back(
      fmt::format("the checksum is wrong: stored {}, computed {}", row.crc, computed));
}

// The record of a row or of a directory; null, with the fault told, when the text is none.
Record checked_record(const std::string& text, int type, Faults* faults) {
  Record record;
  if (text.find('\0') != std::string::npos) {
    faults->emplace_back("the record holds a NUL byte");
    return record;
  }
  record = parsed(text);
  if (!record) {
    faults->emplace_back("the record does not parse");
    return nullptr;
  }
  const _po_t* const made = record.get();
  if (POGetType(made) != type) {
    faults->push_back(fmt::format("the record's type is {}, not {}", POGetType(made), type));
  }
  if (POGetDsid(made) != 0 || *POGetDirname(made) != '\0' || *POGetBasename(made) != '\0') {
    faults->emplace_back("the record holds a location");
  }
  const char* const poid = POGetHashRef(made);
  if (type == PO_TYPE_FILE && *poid != '\0' && !POIDStringValidate(poid)) {
    faults->emplace_back("the record's POID is not valid");
  }
  return record;
}

}  // namespace

const char* type_name(int type) {
  switch (type) {
    case SQLITE_INTEGER:
      return "an integer";
    case SQLITE_FLOAT:
      return "a real number";
    case SQLITE_TEXT:
      return "text";
    case SQLITE_BLOB:
      return "a blob";
    default:
      return "NULL";
  }
}

void check_text(const char* name, const RawColumn& column, Faults* faults) {
  if (column.type != SQLITE_TEXT) {
    faults->push_back(fmt::format("{} is {}, not text", name, type_name(column.type)));
  } else if (column.bytes.find('\0') != std::string::npos) {
    faults->push_back(fmt::format("{} holds a NUL byte", name));
  }
}

bool has_usable_name(const RawRow& row) {
  Faults faults;
  check_text("basename", row.basename, &faults);
  if (faults.empty()) check_name(row.basename.bytes, &faults);
  return faults.empty();
}

Faults row_faults(const RawRow& row) {
  Faults faults = column_faults(row);
  if (!faults.empty()) return faults;
  check_name(row.basename.bytes, &faults);
  check_checksum(row, &faults);
  const Record record = checked_record(row.content.bytes, PO_TYPE_FILE, &faults);
  if (record && row.poid.bytes != POGetHashRef(record.get())) {
    faults.emplace_back("poid is not that of the record");
  }
  return faults;
}

Faults record_faults(const std::string& text, int type) {
  Faults faults;
  checked_record(text, type, &faults);
  return faults;
}

}  // namespace cli
