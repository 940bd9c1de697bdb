#include "cli/catalog_scan.h"

#include "cli/dir_list.h"
#include "cli/row_pager.h"

namespace cli {

bool CatalogScan::walk(const CatalogPath& top,
                       const std::function<void(const CatalogPath&)>& visit) {
  const cr_status_t status = check_directory(top);
  if (status != CR_STATUS_OK) {
    report(console_, top.full(), status, unreached_text(status));
    return false;
  }
  walk_directories(top, visit, [this](const CatalogPath& directory, cr_status_t failure) {
    if (is_there(directory.full())) unread(directory.full(), failure);  // else removed meanwhile
  });
  return true;
}

void CatalogScan::read_rows(
    const CatalogPath& directory, const std::string& condition,
    const std::function<void(const std::string&, const refhost::RecordFields&)>& take) {
  RowPager rows(directory, condition);
  while (const Row* row = rows.next()) {
    if (row->entry) {
      take(row->name, refhost::get_fields(row->entry->record()));
    } else {
      damaged(directory.child(row->name).full(), "the entry is damaged: see pocatalog verify");
    }
  }
  if (rows.status() != CR_STATUS_OK) unread(directory.full(), rows.status());
}

void CatalogScan::damaged(const std::string& path, const std::string& text) {
  damaged_ = true;
  report(console_, path, CR_STATUS_OK, text);
}

void CatalogScan::unread(const std::string& path, cr_status_t status) {
  (status == CR_STATUS_CORRUPT ? damaged_ : unread_) = true;
  if (path == last_unread_) return;  // its rows and its subdirectories fail alike
  last_unread_ = path;
  report(console_, path, status, "cannot be read");
}

int CatalogScan::exit_status() const {
  if (damaged_) return kInconsistent;
  return unread_ ? kIncomplete : kDone;
}

}  // namespace cli
