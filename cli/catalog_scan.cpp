#include "cli/catalog_scan.h"

#include <utility>

#include "cli/cause.h"
#include "cli/dir_list.h"
#include "cli/ordered_work.h"
#include "cli/row_pager.h"

namespace cli {

bool CatalogScan::walk(const CatalogPath& top, const Visit& visit) {
  if (!is_reachable(top)) return false;
  walk_directories(
      top, [&](const CatalogPath& directory, const DirPager&) { visit(console_, directory); },
      [&](const CatalogPath& directory, cr_status_t status) {
        unlisted(console_, directory, status);
      });
  return true;
}

bool CatalogScan::walk_by_threads(const CatalogPath& top, const ThreadVisit& visit) {
  if (!is_reachable(top)) return false;
  OrderedWork work(console_);
  walk_directories(
      top,
      [&](const CatalogPath& directory, DirPager names) {
        work.add([directory, names = std::move(names), &visit](const Console& console) {
          visit(console, directory, names);
        });
      },
      [&](const CatalogPath& directory, cr_status_t status) {
        work.add_in_turn([this, directory, status, cause = take_cause()](const Console& console) {
          keep_cause(cause);
          unlisted(console, directory, status);
        });
      });
  work.finish();
  return true;
}

bool CatalogScan::is_reachable(const CatalogPath& top) {
  const cr_status_t status = check_directory(top);
  if (status != CR_STATUS_OK) report(console_, top.full(), status, unreached_text(status));
  return status == CR_STATUS_OK;
}

void CatalogScan::unlisted(const Console& console, const CatalogPath& directory,
                           cr_status_t status) {
  if (is_there(directory.full())) unread(console, directory.full(), status);  // else just removed
}

void CatalogScan::read_rows(const Console& console, const CatalogPath& directory,
                            const std::string& condition,
                            const std::function<void(const std::string&, const _po_t*)>& take) {
  RowPager rows(directory, condition);
  while (const Row* row = rows.next()) {
    if (row->entry != nullptr) {
      take(row->name, row->entry->record());
    } else {
      damaged(console, directory.child(row->name).full(),
              "the entry is damaged: see pocatalog verify");
    }
  }
  if (rows.status() != CR_STATUS_OK) unread(console, directory.full(), rows.status());
}

void CatalogScan::damaged(const Console& console, const std::string& path,
                          const std::string& text) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    damaged_ = true;
  }
  report(console, path, CR_STATUS_OK, text);
}

void CatalogScan::unread(const Console& console, const std::string& path, cr_status_t status) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    (status == CR_STATUS_CORRUPT ? damaged_ : unread_) = true;
    if (!reported_.insert(path).second) return;
  }
  report(console, path, status, "cannot be read");
}

void CatalogScan::count(const std::string& path, int exit_status) {
  if (exit_status == kDone) return;
  const std::lock_guard<std::mutex> lock(mutex_);
  (exit_status == kInconsistent ? damaged_ : unread_) = true;
  if (exit_status == kFailed) reported_.insert(path);
}

int CatalogScan::exit_status() const {
  if (damaged_) return kInconsistent;
  return unread_ ? kIncomplete : kDone;
}

}  // namespace cli
