#include "host/log.h"
#include "po/host_values_internal.h"
#include "po/po.h"

HostString printed(const _po_t* record) {
  HostString text(POToStringMalloced(record));
  if (text == nullptr) ErrorA(host_status(), "can't PO to string");
  return text;
}

namespace {

_po_t* logged_when_null(_po_t* record) {
  if (record == nullptr) ErrorA(host_status(), "Allocate po struct failed.");
  return record;
}

}  // namespace

_po_t* created_record() { return logged_when_null(POCreate()); }

_po_t* copied_record(const _po_t* record) { return logged_when_null(POCopy(record)); }

void log_unparsable(const std::string& text) {
  ErrorA(host_status(), "can't get PO object with %s", text.c_str());
}

std::string catalog_path(const PO& entry, const std::string& root) {
  return root + "/" + std::to_string(entry.get_dsid()) + entry.GetLocalInternalDirName() + "/" +
         text_or_empty(POGetBasename(entry.record()));
}
