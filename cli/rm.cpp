#include "cli/rm.h"

#include <sys/stat.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <ostream>
#include <vector>

#include "cli/dir_list.h"
#include "cli/dir_lock.h"
#include "cli/directory_batch.h"
#include "cli/dsinfo.h"
#include "cli/entry.h"
#include "cli/json.h"
#include "cli/protection.h"
#include "podb/sqlite_podb.h"
#include "refhost/record.h"

namespace cli {
namespace {

// Why something is not removed: an empty text when nothing stands against it.
struct Refusal {
  cr_status_t status = CR_STATUS_OK;
  std::string text;
};

Refusal entry_refusal(cr_status_t status, const PO* entry, const ComplianceClock& clock) {
  if (status == CR_STATUS_NOT_FOUND) return {status, "no such entry in the catalog"};
  if (is_damage(status)) {
    return {CR_STATUS_OK, std::string("not removed, as it may be protected: ") + kDamagedText};
  }
  if (status != CR_STATUS_OK) return {status, "not removed: the entry cannot be read"};
  const std::string protection = protection_text(entry->record(), clock);
  if (!protection.empty()) return {CR_STATUS_IMMUTABLE, "not removed: " + protection};
  return {};
}

Refusal database_refusal(const CatalogPath& directory) {
  struct stat found = {};
  const std::string file = directory.child(SQLitePODB::dbfilename()).full();
  // The empty leftover of a crash holds no row.
  if (lstat(file.c_str(), &found) != 0 || found.st_size == 0) return {};
  SQLitePODB db(directory.root, directory.full());
  unsigned long rows = 0;
  cr_status_t status = db.check_db_existence(false);
  if (status == CR_STATUS_OK) status = db.count(&rows);
  if (status != CR_STATUS_OK) return {status, "not removed: its database cannot be read"};
  if (rows > 0) return {CR_STATUS_NOT_EMPTY, "not removed: there are files in it"};
  return {};
}

Refusal content_refusal(const CatalogPath& directory) {
  DirPager entries(directory.full());
  while (const DirEntry* entry = entries.next()) {
    if (entry->kind == EntryKind::directory) {
      return {CR_STATUS_NOT_EMPTY, "not removed: there are directories in it"};
    }
    if (entry->kind != EntryKind::file || !is_reserved_name(entry->name)) {
      return {CR_STATUS_NOT_EMPTY,
              "not removed: there is something in it that is not the catalog's"};
    }
  }
  if (entries.status() != CR_STATUS_OK) {
    return {entries.status(), "not removed: the directory cannot be read"};
  }
  return database_refusal(directory);
}

// The way an entry goes.
class Removal {
 public:
  explicit Removal(const CatalogPath& path) : path_(path) {}
  virtual ~Removal() = default;
  Removal(const Removal&) = delete;
  Removal& operator=(const Removal&) = delete;

  virtual Refusal refusal() const = 0;

  // The directory whose lock guards the entry.
  virtual CatalogPath guard() const = 0;

  // Removes the entry; the change to the counters goes to `delta`.
  virtual cr_status_t apply(ds_info_t* delta) const = 0;

 protected:
  const CatalogPath path_;
  const ComplianceClock clock_;
};

class FileRemoval : public Removal {
 public:
  using Removal::Removal;

  Refusal refusal() const override {
    std::unique_ptr<FilePO> entry;
    const cr_status_t status = read_file(path_, &entry);
    return entry_refusal(status, entry.get(), clock_);
  }

  CatalogPath guard() const override { return path_.parent(); }

  cr_status_t apply(ds_info_t* delta) const override {
    IngestJob job;
    job.root = path_.root;
    job.dsid = *path_.dsid();
    SQLitePODB db(path_.root, path_.parent().full());
    IngestOutcome outcome;
    const auto remove = [this](RowBatch& batch) {
      batch.remove(path_.leaf());
      return true;
    };
    try {
      run_batch(job, db, remove, &outcome);
    } catch (const DirectoryError& error) {
      return error.status;
    } catch (const EntryError& error) {
      return error.status;
    }
    if (outcome.counts.removed == 0) return CR_STATUS_IMMUTABLE;  // refused after all
    *delta = outcome.delta;
    return CR_STATUS_OK;
  }
};

class DirectoryRemoval : public Removal {
 public:
  using Removal::Removal;

  Refusal refusal() const override {
    if (path_.components.size() < 2) {
      return {CR_STATUS_NOT_EMPTY, "not removed: it is a data store"};
    }
    std::unique_ptr<DirPO> entry;
    const cr_status_t status = read_directory(path_, &entry);
    const Refusal found = entry_refusal(status, entry.get(), clock_);
    return found.text.empty() ? content_refusal(path_) : found;
  }

  CatalogPath guard() const override { return path_; }

  cr_status_t apply(ds_info_t* delta) const override {
    const bool counted = has_record(path_);
    SQLitePODB db(path_.root, path_.full());
    DirPO entry(path_.root, path_.full(), *path_.dsid());
    const cr_status_t status = update(&entry, &db, delta);
    if (!counted) *delta = {};
    if (status != CR_STATUS_OK) return status;
    // A directory that was kept counts as removed for the library; not for us.
    if (check_directory(path_) == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;
    *delta = {};
    return CR_STATUS_NOT_EMPTY;
  }

 private:
  static cr_status_t update(DirPO* entry, PODB* db, ds_info_t* delta) {
    refhost::RecordFields fields = refhost::get_fields(entry->record());
    fields.type = PO_TYPE_DIR;
    fields.mod_type = PO_MODTYPE_DELETE;
    if (refhost::set_fields(entry->record(), fields) != 0) return *__cr_errno_location();
    std::vector<PO*> unused;
    std::string action;
    return static_cast<cr_status_t>(entry->update(db, *delta, unused, unused, action));
  }
};

bool is_directory_removal(const CatalogPath& path, bool directory_only) {
  if (directory_only || path.components.size() < 2) return true;
  std::unique_ptr<FilePO> file;
  return read_file(path, &file) == CR_STATUS_NOT_FOUND && check_directory(path) == CR_STATUS_OK;
}

std::unique_ptr<Removal> removal_of(const CatalogPath& path, bool directory_only) {
  if (is_directory_removal(path, directory_only)) return std::make_unique<DirectoryRemoval>(path);
  return std::make_unique<FileRemoval>(path);
}

// What was refused before anything was touched is asked again under the lock.
Refusal remove_locked(const CatalogPath& path, const Removal& removal) {
  DsInfoRun run;
  cr_status_t status = run.open(path.root, *path.dsid());
  if (status != CR_STATUS_OK)
    return {status, "not removed: the data store's counters are in the way"};
  ds_info_t delta = {};
  Refusal refusal;
  {
    DirLock lock;
    status = lock.lock(removal.guard().full());
    if (status != CR_STATUS_OK) return {status, "not removed: its directory cannot be locked"};
    refusal = removal.refusal();
    if (refusal.text.empty()) {
      status = removal.apply(&delta);
      if (status != CR_STATUS_OK) refusal = {status, "not removed"};
    }
  }
  if (refusal.text.empty()) run.add(delta);
  const cr_status_t closed = run.close();
  if (closed != CR_STATUS_OK && refusal.text.empty()) {
    return {closed, "removed, but the data store's counters could not be written"};
  }
  return refusal;
}

void print_removed(const Console& console, const CatalogPath& path) {
  if (!console.json) {
    console.out << "removed " << printable(path.inner()) << '\n';
    return;
  }
  nlohmann::ordered_json object;
  set_name(object, "removed", path.inner());
  print_line(console, object);
}

}  // namespace

int rm(const Console& console, const RmOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path || path->components.empty()) return report_bad_path(console, options.path);
  const auto removal = removal_of(*path, names_directory(options.path));
  Refusal refusal = removal->refusal();
  if (refusal.text.empty()) refusal = remove_locked(*path, *removal);
  if (refusal.text.empty()) {
    print_removed(console, *path);
    return kDone;
  }
  report(console, path->full(), refusal.status, refusal.text);
  return kFailed;
}

}  // namespace cli
