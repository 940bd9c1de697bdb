#include "cli/verify.h"

#include <sys/stat.h>

#include "cli/catalog.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "cli/findings.h"
#include "cli/mismatches.h"
#include "cli/row_faults.h"
#include "cli/verify_database.h"
#include "host/files.h"
#include "po/dir_po.h"
#include "podb/sqlite_podb.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// ROOT/<dsid>/<client>/<policy>: directories of images, which have records of their own, start
// here.
constexpr std::size_t kImageDepth = 3;
constexpr off_t kLongestRecord = 65536;

class Verification {
 public:
  explicit Verification(Findings* findings) : findings_(findings) {}

  void check_catalog(const CatalogPath& root) {
    DirPager entries(root.full());
    while (const DirEntry* entry = entries.next()) {
      const CatalogPath path = root.child(entry->name);
      if (entry->kind == EntryKind::directory && path.dsid()) {
        check_data_store(path);
      } else if (entry->name != "lost+found") {  // of the file system that the catalog fills
        findings_->add(path.full(), "is no data store and nothing of the catalog's");
      }
    }
    if (entries.status() != CR_STATUS_OK) unreadable(root, entries.status());
  }

 private:
  void check_data_store(const CatalogPath& data_store) {
    check_counters(data_store);
    walk_directories(
        data_store, [this](const CatalogPath& directory) { check_directory_of_catalog(directory); },
        [this](const CatalogPath& directory, cr_status_t status) {
          unreadable(directory, status);
        });
  }

  void check_directory_of_catalog(const CatalogPath& directory) {
    findings_->between_pages();
    check_entries(directory);
    check_record(directory);
    const bool entries = verify_entries(directory, findings_);
    const bool lists = verify_lists(directory, findings_);
    if (entries && lists) tell_mismatches(directory, findings_);
  }

  void unreadable(const CatalogPath& directory, cr_status_t status) {
    if (!is_there(directory.full())) return;  // removed meanwhile
    findings_->add_unexamined(directory.full(), status, "cannot be read");
  }

  void check_entries(const CatalogPath& directory) {
    DirPager entries(directory.full());
    while (const DirEntry* entry = entries.next()) {
      const std::string fault = entry_fault(directory, *entry);
      const std::string path = directory.child(entry->name).full();
      // What somebody is just writing has gone or changed its name by now.
      if (!fault.empty() && is_there(path)) findings_->add(path, fault);
    }
  }

  static std::string entry_fault(const CatalogPath& directory, const DirEntry& entry) {
    const bool examined_itself = entry.name == DirPO::recordfilename() ||
                                 entry.name == SQLitePODB::dbfilename() ||
                                 entry.name == SQLiteULDB::dbfilename();
    if (examined_itself) return "";
    if (entry.kind == EntryKind::directory) {
      return is_reserved_name(entry.name) ? "is a directory where a file of the catalog belongs"
                                          : "";
    }
    if (!is_reserved_name(entry.name) || entry.kind != EntryKind::file) {
      return "is nothing of the catalog's";
    }
    return misplaced_fault(directory, entry.name);
  }

  // A file with one of the catalog's own names, in a place where it means nothing.
  static std::string misplaced_fault(const CatalogPath& directory, const std::string& name) {
    const bool of_data_store = name == kDsInfoFile || name == kDsInfoLockFile;
    if (of_data_store) {
      return directory.components.size() == 1 ? "" : "is not in a data store's directory";
    }
    const std::size_t suffix = name.find(".db-");
    if (suffix == std::string::npos) return "";
    const std::string database = name.substr(0, suffix) + ".db";
    return is_there(directory.child(database).full()) ? "" : "is a journal without its database";
  }

  void check_counters(const CatalogPath& data_store) {
    DsInfo info;
    const cr_status_t status = read_dsinfo(data_store.root, *data_store.dsid(), &info);
    const std::string file = data_store.child(kDsInfoFile).full();
    if (status == CR_STATUS_BAD_RECORD) return findings_->add(file, "does not parse");
    if (status != CR_STATUS_OK && status != CR_STATUS_NOT_FOUND) {
      findings_->add_unexamined(file, status, "cannot be read");
    }
  }

  void check_record(const CatalogPath& directory) {
    const std::string file = directory.child(DirPO::recordfilename()).full();
    struct stat found = {};
    if (lstat(file.c_str(), &found) != 0) {
      const bool due = directory.components.size() >= kImageDepth && is_there(directory.full());
      if (due) findings_->add(file, "is missing");
      return;
    }
    if (!S_ISREG(found.st_mode)) return findings_->add(file, "is not a regular file");
    if (found.st_size > kLongestRecord) return findings_->add(file, "is too long for a record");
    std::string text;
    const cr_status_t status = wa_readfile(file.c_str(), &text);
    if (status != CR_STATUS_OK) return findings_->add_unexamined(file, status, "cannot be read");
    for (const std::string& fault : record_faults(text, PO_TYPE_DIR)) findings_->add(file, fault);
  }

  Findings* const findings_;
};

}  // namespace

cr_status_t verify_catalog(const CatalogPath& root, Findings* findings) {
  const cr_status_t status = check_directory(root);
  if (status == CR_STATUS_OK) Verification(findings).check_catalog(root);
  return status;
}

int verify(const Console& console, const VerifyOptions& options) {
  const CatalogPath root{absolute_root(options.root), {}};
  Findings findings(console);
  const cr_status_t status = verify_catalog(root, &findings);
  if (status != CR_STATUS_OK) {
    report(console, root.full(), status, "no such catalog");
    return kFailed;
  }
  return findings.conclude();
}

}  // namespace cli
