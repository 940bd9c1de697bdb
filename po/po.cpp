#include "po/po.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

#include "host/files.h"
#include "host/log.h"
#include "po/host_values_internal.h"

namespace {

PORecord checked(_po_t* record) {
  if (record == nullptr) {
    throw Cr_ErrnoException(CR_STATUS_NO_RECORD,
                            "Allocation of a PO struct failed or PO pointer was NULL.", nullptr);
  }
  return PORecord(record);
}

}  // namespace

PO::PO(unsigned int dsid_of_store) : PO(checked(created_record()), dsid_of_store) {}

PO::PO(PORecord taken, unsigned int dsid_of_store) : po(std::move(taken)), dsid(dsid_of_store) {}

PO::PO(const std::string& text) : PO(0u) {
  if (POSetFromString(record(), text.c_str()) != -1) return;
  log_unparsable(text);
  throw Cr_ErrnoException(CR_STATUS_BAD_RECORD, "Could not set PO from string", nullptr);
}

PO::PO(const std::string& root, const std::string& path, unsigned int dsid_of_store)
    : PO(dsid_of_store) {
  const unsigned int result = add_info(root, path, nullptr);
  if (result == 0) return;
  throw Cr_ErrnoException(as_status(result), "Could not \"add info\" to PO", nullptr);
}

PO::PO(const PO& other) : po(checked(copied_record(other.record()))), dsid(POGetDsid(record())) {
  if (other.udcid_record != nullptr) {
    udcid_record = std::make_unique<UDCIDRecord>(*other.udcid_record);
  }
}

PO::~PO() = default;

int PO::setFromString(_po_t* record, const char* text) {
  if (POSetFromString(record, text) == -1) {
    if (host_status() == CR_STATUS_OK) set_host_status(CR_STATUS_BAD_RECORD);
    return -1;
  }
  if (POGetType(record) != PO_TYPE_FILE) return 0;
  const char* const poid = POGetHashRef(record);
  if (poid == nullptr || *poid == '\0' || POIDStringValidate(poid)) return 0;
  ErrorA(CR_STATUS_NONE, "%s: %s is not a valid POID string.", "setFromString", poid);
  set_host_status(CR_STATUS_BAD_RECORD);
  return -1;
}

std::string PO::GetLocalDirName() const { return text_or_empty(POGetDirname(record())); }

std::string PO::GetLocalInternalDirName() const {
  std::string dir = text_or_empty(POGetInternalDirname(record()));
  UnifyLocalDirName(dir);
  return dir;
}

unsigned int PO::get_path(const std::string& root, std::string* out) const {
  if (out == nullptr) return as_result(CR_STATUS_BAD_ARG);
  const std::string dir = GetLocalInternalDirName();
  const char* leaf = POGetBasename(record());
  if (dir.empty() || leaf == nullptr) return as_result(CR_STATUS_NO_LOCATION);
  char path[4096];
  std::snprintf(path, sizeof path, "%s%c%u%s%c%s", root.c_str(), '/', dsid, dir.c_str(), '/', leaf);
  *out = path;
  return 0;
}

unsigned int PO::add_info(const std::string& root, const std::string& path,
                          unsigned int* override) {
  // The prefix is as long as it is with the dsid from before the override, which is intended.
  const std::size_t prefix = root.size() + 1 + std::to_string(dsid).size();
  const char* inner = path.c_str() + std::min(prefix, path.size());
  if (POSetPath(record(), inner) == -1) {
    const cr_status_t status = failure_status();
    ErrorA(status, "can't set PO path %s", path.c_str());
    return as_result(status);
  }
  if (override != nullptr) dsid = *override;
  if (POSetDsid(record(), dsid) == -1) {
    const cr_status_t status = failure_status();
    ErrorA(status, "can't set dsid %s %d", path.c_str(), static_cast<int>(dsid));
    return as_result(status);
  }
  return 0;
}

unsigned int PO::set(const std::string& root, const std::string& text, const std::string& path) {
  if (po == nullptr) {
    ErrorA(CR_STATUS_NO_MEMORY, "Failed to allocate memory for PO %s", path.c_str());
    return as_result(CR_STATUS_NO_MEMORY);
  }
  if (setFromString(record(), text.c_str()) != 0) {
    const cr_status_t status = failure_status();
    log_unparsable(text);
    return as_result(status);
  }
  const unsigned int result = add_info(root, path, nullptr);
  if (result != 0) {
    ErrorA(as_status(result), "can't add info to po [%s][%s]", path.c_str(), text.c_str());
  }
  return result;
}

unsigned int PO::remove_info() {
  const char* failure = nullptr;
  if (POSetDirname(record(), "") == -1) {
    failure = "can't set dir name to null";
  } else if (POSetBasename(record(), "") == -1) {
    failure = "can't set base name to null";
  } else if (POSetDsid(record(), 0) == -1) {
    failure = "can't set dsid to 0";
  }
  if (failure == nullptr) return 0;
  const cr_status_t status = failure_status();
  ErrorA(status, "%s", failure);
  return as_result(status);
}

unsigned int PO::to_string(std::string& out) const {
  const HostString text = printed(record());
  if (text == nullptr) return as_result(failure_status());
  out = text.get();
  return 0;
}

std::string PO::get_logstr() {
  if (logstr.empty()) logstr = text_or_empty(printed(record()).get());
  return logstr;
}

unsigned int PO::write(const std::string& file) {
  const unsigned int result = remove_info();
  if (result != 0) {
    ErrorA(as_status(result), "can't remove po path with %s", file.c_str());
    return result;
  }
  const HostString text = printed(record());
  // A host that makes no text and gives no reason has an empty one to write: intended.
  if (text == nullptr && host_status() != CR_STATUS_OK) {
    const cr_status_t status = host_status();
    ErrorA(status, "to string error %s", file.c_str());
    return as_result(status);
  }
  const std::string content = text_or_empty(text.get());
  const cr_status_t status = wa_writefile(file.c_str(), content, false);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "write file error %s, %s", file.c_str(), content.c_str());
  }
  return as_result(status);
}

bool PO::udcid_qualified() const {
  if (POGetType(record()) == PO_TYPE_DIR) return false;
  const char* poid = POGetHashRef(record());
  return poid != nullptr && *poid != '\0' && CRFPIsEmptyFP(POGetCdoRef(record())) == 0;
}

void PO::set_status(po_status_t status) { POSetStatus(record(), status); }

unsigned int PO::CalculateDsid(const std::string& root, const std::string& path) {
  const std::size_t start = root.size() + 1;
  if (start >= path.size()) return 0;
  const std::string component = path.substr(start, path.find('/', start) - start);
  return static_cast<unsigned int>(std::strtoull(component.c_str(), nullptr, 10));
}

bool PO::Glob(const std::string& pattern, const std::string& name) {
  std::size_t length = pattern.size();
  if (length > 0 && pattern.back() == '*') --length;
  return std::strncmp(pattern.c_str(), name.c_str(), length) == 0;
}

void PO::UnifyLocalDirName(std::string& dir) {
  if (dir == "/") dir.clear();
}

void intrusive_ptr_add_ref(PO* entry) { ++entry->refcount; }

void intrusive_ptr_release(PO* entry) {
  if (--entry->refcount == 0) delete entry;
}
