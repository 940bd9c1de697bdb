#include "host/log.h"
#include "po/host_values_internal.h"

HostString printed(const _po_t* record) {
  HostString text(POToStringMalloced(record));
  if (text == nullptr) ErrorA(host_status(), "can't PO to string");
  return text;
}

_po_t* created_record() {
  _po_t* record = POCreate();
  if (record == nullptr) ErrorA(host_status(), "Allocate po struct failed.");
  return record;
}
