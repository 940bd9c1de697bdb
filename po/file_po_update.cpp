// How an incoming file entry is applied to the catalog.
#include <memory>
#include <new>

#include "host/files.h"
#include "host/log.h"
#include "po/file_po.h"
#include "po/host_values_internal.h"
#include "podb/podb.h"

namespace {

// The entry that an update displaces.
struct OldEntry {
  std::unique_ptr<FilePO> owned;  // until it is listed
  FilePO* entry = nullptr;
  bool load_failed = false;        // then its size is unknown, and not discounted
  bool relocation_failed = false;  // then it is not listed
};

class FileUpdate {
 public:
  FileUpdate(FilePO& entry, PODB* db, ds_info_t& info, std::vector<PO*>& removed,
             std::vector<PO*>& udcid)
      : incoming_(entry),
        db_(db),
        info_(info),
        removed_(removed),
        udcid_(udcid),
        path_(catalog_path(entry, db->get_root())) {}

  unsigned int add();
  unsigned int erase(bool protect_immutable);

 private:
  unsigned int load(OldEntry& old);
  void relocate(OldEntry& old, unsigned int loaded);
  void list(OldEntry& old);
  void keep(FilePO& old);
  unsigned int displace(OldEntry& old);
  unsigned int remove_row(FilePO& old);
  unsigned int store(bool is_new, bool is_same);

  FilePO& incoming_;
  PODB* db_;
  ds_info_t& info_;
  std::vector<PO*>& removed_;
  std::vector<PO*>& udcid_;
  const std::string path_;
};

// The status with which a store could not look for a row; 0 when it could: the row is not there, or
// it is damaged. Without this difference an unreadable database would look like an empty one.
unsigned int look_failure() {
  const cr_status_t status = host_status();
  const bool looked = status == CR_STATUS_NOT_FOUND || status == CR_STATUS_BAD_RECORD;
  return looked ? 0 : as_result(status);
}

bool is_immutable(const FilePO& entry) {
  return (POGetSpecialFlags(entry.record()) & SF_IMMUTABLE) != 0;
}

unsigned int refuse_immutable() {
  ErrorA(CR_STATUS_IMMUTABLE, "can't delete immutable image.");
  return as_result(CR_STATUS_IMMUTABLE);
}

// Loads the stored row, if there is one.
unsigned int FileUpdate::load(OldEntry& old) {
  old.owned = std::make_unique<FilePO>(incoming_.get_dsid());
  old.entry = old.owned.get();
  set_host_status(CR_STATUS_OK);
  return old.entry->load(db_, path_, true);
}

// A row that is there but damaged leaves an entry that knows its path only.
void FileUpdate::relocate(OldEntry& old, unsigned int loaded) {
  InfoA(as_status(loaded), "%s: Load PO %s failed.", "update", path_.c_str());
  old.load_failed = true;
  old.relocation_failed = old.entry->add_info(db_->get_root(), path_, nullptr) != 0;
}

void FileUpdate::list(OldEntry& old) {
  if (old.relocation_failed) return;
  removed_.push_back(old.entry);
  static_cast<void>(old.owned.release());  // the list's owner has it now
}

// A retried add must not release the data of the entry that is already there.
void FileUpdate::keep(FilePO& old) {
  if (incoming_.get_udcid_record() == nullptr && old.get_udcid_record() != nullptr) {
    InfoA(0, "UDCID is existing already. Directly set it to the FilePO: %s", path_.c_str());
    incoming_.set_udcid_record(old.release_udcid_record());
  }
  WarningA(0,
           "The same PO is being updated: %s. It usually happens when the agent is retrying the "
           "addlist operation. Should not remove and deref the existing PO and DO",
           path_.c_str());
}

unsigned int FileUpdate::remove_row(FilePO& old) {
  const unsigned int result = old.remove(db_, path_);
  if (as_status(result) != CR_STATUS_NOT_PROVIDED) return result;
  // The store does not tell entries of one name apart by POID: the name says which one it is.
  return as_result(db_->del(getbasename(path_)));
}

unsigned int FileUpdate::displace(OldEntry& old) {
  list(old);
  const unsigned int result = remove_row(*old.entry);
  if (result == 0 && !old.load_failed) info_.total_size -= old.entry->get_size();
  // The second word is the outcome, although the text reads like a database's name.
  InfoA(0, "Remove existing PO %s from database %s.", path_.c_str(),
        result == 0 ? "succeed" : "failed");
  return result;
}

unsigned int FileUpdate::store(bool is_new, bool is_same) {
  const unsigned int result = incoming_.save(db_, path_);
  if (result != 0) return result;
  if (!is_same) info_.total_size += incoming_.get_size();
  if (is_new) ++info_.file_count;
  if (incoming_.udcid_qualified()) udcid_.push_back(&incoming_);
  return 0;
}

unsigned int FileUpdate::add() {
  set_host_status(CR_STATUS_OK);
  if (!incoming_.exists(db_, path_)) {
    const unsigned int failure = look_failure();
    return failure != 0 ? failure : store(true, false);
  }
  InfoA(0, "PO %s exists in database.", path_.c_str());
  OldEntry old;
  const unsigned int loaded = load(old);
  if (loaded != 0) {
    const unsigned int failure = look_failure();
    if (failure != 0) return failure;
    relocate(old, loaded);
  }
  // Checked on every replacement, whatever the action; and before the entry is listed, so that
  // nobody finds it in the list after it is gone.
  if (is_immutable(*old.entry)) return refuse_immutable();
  const bool same = loaded == 0 && POEqualsPO(old.entry->record(), incoming_.record(), 0) != 0;
  if (same) {
    keep(*old.entry);
  } else {
    const unsigned int result = displace(old);
    if (result != 0) return result;
  }
  return store(false, same);
}

unsigned int FileUpdate::erase(bool protect_immutable) {
  OldEntry old;
  const unsigned int loaded = load(old);
  if (loaded != 0) {
    const unsigned int failure = look_failure();
    if (failure != 0) return failure;
    if (as_status(loaded) == CR_STATUS_NOT_FOUND) {
      InfoA(CR_STATUS_NOT_FOUND, "File Not found, ignore this error [%s]", path_.c_str());
      return 0;
    }
    relocate(old, loaded);
  }
  if (protect_immutable && is_immutable(*old.entry)) return refuse_immutable();
  list(old);
  const unsigned int result = remove_row(*old.entry);
  if (result != 0) return result;
  if (!old.load_failed) {
    const std::uint64_t size = incoming_.get_size();
    info_.total_size -= size != 0 ? size : old.entry->get_size();
  }
  --info_.file_count;
  return 0;
}

}  // namespace

unsigned int FilePO::update(PODB* db, ds_info_t& info, std::vector<PO*>& removed_pos,
                            std::vector<PO*>& udcid_pos, std::string& action) {
  const int type = POGetType(record());
  if (type != PO_TYPE_FILE) {
    ErrorA(CR_STATUS_BAD_RECORD, "%s: unexpected PO type %d", "update", type);
    return as_result(CR_STATUS_BAD_RECORD);
  }
  try {
    FileUpdate update(*this, db, info, removed_pos, udcid_pos);
    if (POGetModType(record()) != PO_MODTYPE_DELETE) return update.add();
    return update.erase(action == "action_imgchk");
  } catch (const std::bad_alloc&) {
    ErrorA(CR_STATUS_NO_MEMORY, "can't allocate memory");
    return as_result(CR_STATUS_NO_MEMORY);
  }
}
