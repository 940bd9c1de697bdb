// The factories of entries, which know the concrete kinds.
#include <memory>
#include <new>
#include <utility>

#include "host/files.h"
#include "host/log.h"
#include "po/dir_po.h"
#include "po/file_po.h"
#include "po/host_values_internal.h"

namespace {

// Null, after a log line, with a status in the cell.
PORecord parsed_record(const std::string& text, po_stype_t stype) {
  PORecord record(created_record());
  if (record == nullptr) {
    set_host_status(failure_status());
    return nullptr;
  }
  POSetStype(record.get(), stype);
  if (PO::setFromString(record.get(), text.c_str()) == 0) return record;
  log_unparsable(text);
  return nullptr;
}

}  // namespace

PO* PO::getObject(const std::string& text, po_stype_t stype) {
  try {
    PORecord record = parsed_record(text, stype);
    if (record == nullptr) return nullptr;
    const unsigned int dsid = POGetDsid(record.get());
    const int type = POGetType(record.get());
    if (type == PO_TYPE_FILE) return new FilePO(std::move(record), dsid);
    if (type == PO_TYPE_DIR) return new DirPO(std::move(record), dsid);
    set_host_status(CR_STATUS_NOT_PROVIDED);
    ErrorA(CR_STATUS_NOT_PROVIDED, "Could not recongize type %d", type);
  } catch (const std::bad_alloc&) {  // the host's functions may throw it as well
    set_host_status(CR_STATUS_NO_MEMORY);
    ErrorA(CR_STATUS_NO_MEMORY, "can't allocate memory");
  }
  return nullptr;
}

namespace {

std::unique_ptr<PO> empty_entry(bool is_directory, unsigned int dsid) {
  if (is_directory) return std::make_unique<DirPO>(dsid);
  return std::make_unique<FilePO>(dsid);
}

}  // namespace

PO* PO::getObjectWithPath(const std::string& root, const std::string& path, unsigned int dsid) {
  try {
    std::unique_ptr<PO> entry = empty_entry(wa_isdir(path.c_str()), dsid);
    const unsigned int result = entry->add_info(root, path, nullptr);
    if (result == 0) return entry.release();
    set_host_status(as_status(result));
  } catch (const Cr_ErrnoException&) {
    set_host_status(CR_STATUS_NO_MEMORY);
    ErrorA(CR_STATUS_NO_MEMORY, "Could not create PO object");
  } catch (const std::bad_alloc&) {
    set_host_status(CR_STATUS_NO_MEMORY);
    ErrorA(CR_STATUS_NO_MEMORY, "%s: can't allocate memory", "getObjectWithPath");
  }
  return nullptr;
}
