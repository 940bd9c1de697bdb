#include "cli/entry.h"

#include <sys/stat.h>

#include <utility>

#include "podb/sqlite_podb.h"
#include "refhost/record.h"

namespace cli {
namespace {

// A data store lies above the images: it has neither a record nor a path inside an image.
std::unique_ptr<DirPO> data_store_entry(unsigned int dsid) {
  auto entry = std::make_unique<DirPO>(dsid);
  refhost::RecordFields fields;
  fields.dsid = dsid;
  fields.type = PO_TYPE_DIR;
  fields.mode = S_IFDIR | 0755;
  refhost::set_fields(entry->record(), fields);
  return entry;
}

// What lies in the place of a directory's record. What is no file, as a link or a pipe, is not for
// reading: that might never end.
enum class RecordPlace { empty, file, other };

RecordPlace record_place(const CatalogPath& directory) {
  struct stat found = {};
  const std::string file = directory.child(DirPO::recordfilename()).full();
  if (lstat(file.c_str(), &found) != 0) return RecordPlace::empty;
  return S_ISREG(found.st_mode) ? RecordPlace::file : RecordPlace::other;
}

cr_status_t load_image_directory(const CatalogPath& path, RecordPlace place,
                                 std::unique_ptr<DirPO>* entry) {
  if (place == RecordPlace::other) return CR_STATUS_BAD_RECORD;
  auto found = std::make_unique<DirPO>(*path.dsid());
  const auto status = static_cast<cr_status_t>(found->load(path.root, path.full()));
  if (status != CR_STATUS_OK) return status;
  if (POGetType(found->record()) != PO_TYPE_DIR) return CR_STATUS_BAD_RECORD;
  *entry = std::move(found);
  return CR_STATUS_OK;
}

}  // namespace

cr_status_t read_file(const CatalogPath& path, std::unique_ptr<FilePO>* entry) {
  if (path.components.size() < 2 || !path.dsid()) return CR_STATUS_NOT_FOUND;
  const cr_status_t reachable = check_directory(path.parent());
  if (reachable != CR_STATUS_OK) return reachable;
  SQLitePODB db(path.root, path.parent().full());
  auto found = std::make_unique<FilePO>(*path.dsid());
  const cr_status_t status = db.get(path.leaf(), found.get());
  if (status == CR_STATUS_OK) *entry = std::move(found);
  // "Not there" is also the answer when the database could not be opened; the cell knows better.
  const cr_status_t reason = *__cr_errno_location();
  return status == CR_STATUS_NOT_FOUND && reason != CR_STATUS_OK ? reason : status;
}

cr_status_t read_directory(const CatalogPath& path, std::unique_ptr<DirPO>* entry) {
  if (!path.dsid()) return CR_STATUS_NOT_FOUND;
  const cr_status_t reachable = check_directory(path);
  if (reachable != CR_STATUS_OK) return reachable;
  if (path.components.size() > 1) return load_image_directory(path, record_place(path), entry);
  *entry = data_store_entry(*path.dsid());
  return CR_STATUS_OK;
}

cr_status_t read_found_directory(const CatalogPath& path, std::unique_ptr<DirPO>* entry) {
  if (path.components.size() > 1) {
    const RecordPlace place = record_place(path);
    if (place != RecordPlace::empty) return load_image_directory(path, place, entry);
  }
  return read_directory(path, entry);  // without a record it may be gone
}

cr_status_t read_entry(const CatalogPath& path, bool directory_only, std::unique_ptr<PO>* entry) {
  if (!directory_only) {
    std::unique_ptr<FilePO> file;
    const cr_status_t status = read_file(path, &file);
    *entry = std::move(file);
    if (status != CR_STATUS_NOT_FOUND) return status;
  }
  std::unique_ptr<DirPO> directory;
  const cr_status_t status = read_directory(path, &directory);
  *entry = std::move(directory);
  return status;
}

bool is_damage(cr_status_t status) {
  return status == CR_STATUS_NONE || status == CR_STATUS_BAD_RECORD;
}

int report_unread(const Console& console, const CatalogPath& path, cr_status_t status) {
  if (is_damage(status)) {
    report(console, path.full(), CR_STATUS_OK, kDamagedText);
    return kInconsistent;
  }
  const bool absent = status == CR_STATUS_NOT_FOUND;
  report(console, path.full(), status,
         absent ? "no such entry in the catalog" : "the entry cannot be read");
  return kFailed;
}

int report_bad_path(const Console& console, const std::string& path) {
  report(console, path, CR_STATUS_OK,
         "not a path in a catalog: those start with the number of a data store, and no part is '.' "
         "or '..'");
  return kUsage;
}

bool names_directory(const std::string& path) { return !path.empty() && path.back() == '/'; }

bool has_record(const std::string& directory) {
  return is_there(directory + "/" + DirPO::recordfilename());
}

}  // namespace cli
