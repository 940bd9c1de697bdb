#include "cli/verify.h"

#include "cli/catalog.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "cli/findings.h"
#include "cli/verify_directory.h"

namespace cli {
namespace {

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
        data_store,
        [this](const CatalogPath& directory) { verify_directory(directory, findings_); },
        [this](const CatalogPath& directory, cr_status_t status) {
          unreadable(directory, status);
        });
  }

  void unreadable(const CatalogPath& directory, cr_status_t status) {
    if (!is_there(directory.full())) return;  // removed meanwhile
    findings_->add_unexamined(directory.full(), status, "cannot be read");
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
    report(console, root.full(), status, unreached_text(status));
    return kFailed;
  }
  return findings.conclude();
}

}  // namespace cli
