#include "po/file_po.h"

#include <algorithm>

#include "host/files.h"
#include "po/host_values_internal.h"
#include "podb/podb.h"

unsigned int FilePO::load(PODB* db, const std::string& path) {
  return as_result(db->get(getbasename(path), this));
}

unsigned int FilePO::load(PODB* db, const std::string& path, bool flag) {
  return as_result(db->get(getbasename(path), this, flag));
}

unsigned int FilePO::save(PODB* db, const std::string&) { return as_result(db->put(this)); }

unsigned int FilePO::remove(PODB* db, const std::string& path) {
  return as_result(db->del(getbasename(path), text_or_empty(POGetHashRef(record()))));
}

bool FilePO::exists(PODB* db, const std::string& path) const {
  return db->exists(getbasename(path));
}

unsigned int FilePO::get_retention(PODB* db, const std::string& path,
                                   tolvfs_worm_info_t& info) const {
  return as_result(db->get_retention(getbasename(path), info));
}

unsigned int FilePO::set_retention(PODB* db, const std::string& path, unsigned long flags,
                                   long retention) const {
  return as_result(db->set_retention(getbasename(path), flags, retention));
}

std::uint64_t FilePO::get_size() { return POGetSize(record()); }

bool FilePO::hasData(const PO* entry) {
  if (entry == nullptr) return false;
  const _po_t* record = entry->record();
  const char* fingerprints[] = {POGetCdoRef(record), POGetMdoRef(record), POGetSdoRef(record)};
  return std::any_of(std::begin(fingerprints), std::end(fingerprints), [](const char* fp) {
    return fp != nullptr && *fp != '\0' && CRFPIsEmptyFP(fp) == 0;
  });
}
