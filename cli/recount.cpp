// Counting a data store from what it holds.
#include "cli/catalog.h"
#include "cli/database.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "host/files.h"
#include "po/dir_po.h"

namespace cli {
namespace {

class SizeSum : public POProcessor {
 public:
  int process(PO* po) override {
    total += po->get_size();
    return 0;
  }
  std::uint64_t total = 0;
};

cr_status_t count_rows(SQLitePODB& db, ds_info_t* counters) {
  DatabaseState state{};
  cr_status_t status = examine_database(db, &state);
  if (status != CR_STATUS_OK || state != DatabaseState::present) return status;
  unsigned long rows = 0;
  SizeSum sizes;
  status = db.count(&rows);
  if (status == CR_STATUS_OK) status = db.process_by_pattern("*", &sizes);
  if (status != CR_STATUS_OK) return status;
  add_counters(counters, {sizes.total, 0, rows});
  return CR_STATUS_OK;
}

cr_status_t count_directory(const CatalogPath& path, ds_info_t* counters) {
  const std::string directory = path.full();
  const std::string record = directory + "/" + DirPO::recordfilename();
  if (wa_access(record.c_str(), 0) == CR_STATUS_OK) ++counters->dir_count;
  SQLitePODB db(path.root, directory);
  return count_rows(db, counters);
}

}  // namespace

cr_status_t count_data_store(const std::string& root, unsigned int dsid, ds_info_t* counters) {
  cr_status_t failure = CR_STATUS_OK;
  const auto keep_first = [&failure](cr_status_t status) {
    if (failure == CR_STATUS_OK) failure = status;
  };
  walk_directories(
      CatalogPath{root, {std::to_string(dsid)}},
      [&](const CatalogPath& path) { keep_first(count_directory(path, counters)); },
      [&](const CatalogPath&, cr_status_t status) { keep_first(status); });
  return failure;
}

}  // namespace cli
