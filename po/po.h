// Path objects: the entries of a backup image's catalog.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "base/export.h"
#include "host/po_record.h"
#include "host/status.h"
#include "uldb/udcid_record.h"

class PODB;

// Destroys what it owns through the host.
struct PORecordDeleter {
  void operator()(_po_t* record) const { PODestroy(record); }
};
using PORecord = std::unique_ptr<_po_t, PORecordDeleter>;

// One entry of a catalog: a file (FilePO) or a directory (DirPO).
//
// Owns a record of the host and, after an update attached one, the list of data containers of its
// content. It lives at root/dsid/inner/path/leaf: the record holds directory and leaf of the path
// inside the image, and the object the data-store id. Operations return 0 or a status; a failing
// host call is logged once and its status (CR_STATUS_FAILED when the host left none) is the result.
//
// An entry, and every boost::intrusive_ptr to it, stays within one thread at a time: the reference
// count is deliberately not atomic. It starts at 0, so a raw pointer from a factory may be wrapped
// or deleted.
class POCATALOG_API PO {
 public:
  // From its text form, the POID unchecked. The dsid of the object stays 0 whatever the text holds;
  // both are intended. Throws Cr_ErrnoException: CR_STATUS_NO_RECORD, CR_STATUS_BAD_RECORD.
  explicit PO(const std::string& text);

  // An empty record at a full path. Throws Cr_ErrnoException: CR_STATUS_NO_RECORD, or the status
  // with which the path was refused.
  PO(const std::string& root, const std::string& path, unsigned int dsid);

  // A deep copy, container list included; log string and reference count start anew, and the dsid
  // is the record's. Throws Cr_ErrnoException: CR_STATUS_NO_RECORD, CR_STATUS_NO_MEMORY.
  PO(const PO& other);
  PO& operator=(const PO&) = delete;
  virtual ~PO();

  // Fill, store and remove this entry, at a full path. `db` is the database of the entry's
  // directory.
  virtual unsigned int load(PODB* db, const std::string& path) = 0;
  virtual unsigned int save(PODB* db, const std::string& path) = 0;
  virtual unsigned int remove(PODB* db, const std::string& path) = 0;

  // Applies this entry, as it arrived from a backup, to the catalog. FilePO and DirPO say how.
  virtual unsigned int update(PODB* db, ds_info_t& info, std::vector<PO*>& removed_pos,
                              std::vector<PO*>& udcid_pos, std::string& action) = 0;

  // The bytes that the entry counts in the statistics.
  virtual std::uint64_t get_size() = 0;

  // A FilePO or DirPO from its text form, which names the type and the dsid; the caller owns it.
  // Null on failure, with the status in the host's status cell: CR_STATUS_BAD_RECORD for a text
  // that does not parse, CR_STATUS_NOT_PROVIDED for another type, CR_STATUS_NO_MEMORY. Never
  // throws.
  static PO* getObject(const std::string& text, po_stype_t stype);

  // An empty entry at a full path: a DirPO when the path is a directory, otherwise a FilePO.
  // Ownership and failure as above; CR_STATUS_NO_MEMORY also when no record could be made.
  static PO* getObjectWithPath(const std::string& root, const std::string& path, unsigned int dsid);

  // Parses a text into `record` and checks a file's POID. Returns 0, or -1 with a status in the
  // cell.
  static int setFromString(_po_t* record, const char* text);

  // The dsid in a full path: the decimal digits that start its first component below `root`, the
  // low 32 bits; 0 when there are none.
  static unsigned int CalculateDsid(const std::string& root, const std::string& path);

  // Whether `name` starts with `pattern`. One star at the pattern's end is dropped first; a star
  // anywhere else is an ordinary character.
  static bool Glob(const std::string& pattern, const std::string& name);

  // Turns the image root "/" into the empty text.
  static void UnifyLocalDirName(std::string& dir);

  // The record's directory as it is, and in the internal spelling with "/" turned into the empty
  // text.
  std::string GetLocalDirName() const;
  std::string GetLocalInternalDirName() const;

  // The full path, at most 4095 bytes. CR_STATUS_NO_LOCATION, `out` untouched, for an entry without
  // a directory or a leaf: one directly in the image root has no full path here, which is intended.
  unsigned int get_path(const std::string& root, std::string* out) const;

  // Relocates the entry to a full path, whose prefix root/dsid is skipped unchecked, and to `*dsid`
  // when that is not null.
  unsigned int add_info(const std::string& root, const std::string& path, unsigned int* dsid);

  // Loads a text form and relocates the entry to `path`; the object's dsid wins over the text's.
  unsigned int set(const std::string& root, const std::string& text, const std::string& path);

  // Empties directory, leaf and dsid of the record; the object's dsid stays. Texts that the record
  // returned before are gone afterwards.
  unsigned int remove_info();

  // The text form; `out` is untouched on failure.
  unsigned int to_string(std::string& out) const;

  // The text form as it was at the first call, for log lines; empty when it could not be made.
  std::string get_logstr();

  // Strips the location (remove_info), which is not restored, and writes the text form to a file.
  unsigned int write(const std::string& file);

  // True for a file with a POID and a content fingerprint: one whose containers are to be recorded.
  bool udcid_qualified() const;

  void set_status(po_status_t status);

  // The host's record, which stays the object's. Never null.
  _po_t* record() const { return po.get(); }
  unsigned int get_dsid() const { return dsid; }

  // The container list, which stays the object's, or null; its replacement; and its giving away.
  UDCIDRecord* get_udcid_record() const { return udcid_record.get(); }
  void set_udcid_record(std::unique_ptr<UDCIDRecord> list) { udcid_record = std::move(list); }
  std::unique_ptr<UDCIDRecord> release_udcid_record() { return std::move(udcid_record); }

 protected:
  // Over a fresh, empty record. Throws Cr_ErrnoException, CR_STATUS_NO_RECORD.
  explicit PO(unsigned int dsid_of_store);
  // Takes over `taken`, which must not be null.
  PO(PORecord taken, unsigned int dsid_of_store);

  PORecord po;
  unsigned int dsid;
  std::unique_ptr<UDCIDRecord> udcid_record;

 private:
  friend POCATALOG_API void intrusive_ptr_add_ref(PO* entry);
  friend POCATALOG_API void intrusive_ptr_release(PO* entry);

  std::string logstr;
  std::uint64_t refcount = 0;
};

// For boost::intrusive_ptr: the last release deletes the entry.
POCATALOG_API void intrusive_ptr_add_ref(PO* entry);
POCATALOG_API void intrusive_ptr_release(PO* entry);
