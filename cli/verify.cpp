#include "cli/verify.h"

#include <functional>
#include <mutex>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "cli/findings.h"
#include "cli/ordered_work.h"
#include "cli/verify_directory.h"

namespace cli {
namespace {

class Verification {
 public:
  explicit Verification(Findings* findings) : findings_(findings) {}

  void check_catalog(const CatalogPath& root, OrderedWork* work) {
    work_ = work;
    DirPager entries(root.full());
    while (const DirEntry* entry = entries.next()) {
      const CatalogPath path = root.child(entry->name);
      if (entry->kind == EntryKind::directory && path.dsid()) {
        check_data_store(path);
      } else if (entry->name != "lost+found") {  // of the file system that the catalog fills
        run([path](Findings* findings) {
          findings->add(path.full(), "is no data store and nothing of the catalog's");
        });
      }
    }
    if (entries.status() != CR_STATUS_OK) unreadable(root, entries.status());
  }

 private:
  using Check = std::function<void(Findings*)>;

  // What several threads find is told in the order of the calls.
  void run(const Check& check) {
    if (work_ == nullptr) return check(findings_);
    work_->add([this, check](const Console& console) {
      Findings own(console);
      check(&own);
      const std::lock_guard<std::mutex> lock(mutex_);
      findings_->add_counts(own);
    });
  }

  void check_data_store(const CatalogPath& data_store) {
    run([data_store](Findings* findings) { check_counters(data_store, findings); });
    walk_directories(
        data_store,
        [this](const CatalogPath& directory, const DirPager&) {
          run([directory](Findings* findings) { verify_directory(directory, findings); });
        },
        [this](const CatalogPath& directory, cr_status_t status) {
          unreadable(directory, status);
        });
  }

  void unreadable(const CatalogPath& directory, cr_status_t status) {
    const std::string cause = take_cause();
    if (!is_there(directory.full())) return;  // removed meanwhile
    run([=](Findings* findings) {
      keep_cause(cause);
      findings->add_unexamined(directory.full(), status, "cannot be read");
    });
  }

  static void check_counters(const CatalogPath& data_store, Findings* findings) {
    DsInfo info;
    const cr_status_t status = read_dsinfo(data_store.root, *data_store.dsid(), &info);
    const std::string file = data_store.child(kDsInfoFile).full();
    if (status == CR_STATUS_BAD_RECORD) return findings->add(file, "does not parse");
    if (status != CR_STATUS_OK && status != CR_STATUS_NOT_FOUND) {
      findings->add_unexamined(file, status, "cannot be read");
    }
  }

  Findings* const findings_;
  OrderedWork* work_ = nullptr;
  std::mutex mutex_;  // of the findings, while threads work
};

}  // namespace

cr_status_t verify_catalog(const CatalogPath& root, Findings* findings) {
  const cr_status_t status = check_directory(root);
  if (status == CR_STATUS_OK) Verification(findings).check_catalog(root, nullptr);
  return status;
}

cr_status_t verify_catalog_by_threads(const Console& console, const CatalogPath& root,
                                      Findings* findings) {
  const cr_status_t status = check_directory(root);
  if (status != CR_STATUS_OK) return status;
  Verification verification(findings);
  OrderedWork work(console);  // whose threads end before what they use
  verification.check_catalog(root, &work);
  work.finish();
  return status;
}

int verify(const Console& console, const VerifyOptions& options) {
  const CatalogPath root{absolute_root(options.root), {}};
  Findings findings(console);
  const cr_status_t status = verify_catalog_by_threads(console, root, &findings);
  if (status != CR_STATUS_OK) {
    report(console, root.full(), status, unreached_text(status));
    return kFailed;
  }
  return findings.conclude();
}

}  // namespace cli
