// Counting a data store from what it holds.
#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/database.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "cli/entry.h"

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
  if (has_record(directory)) ++counters->dir_count;
  SQLitePODB db(path.root, directory);
  return count_rows(db, counters);
}

}  // namespace

CountResult count_data_store(const std::string& root, unsigned int dsid, ds_info_t* counters) {
  CountResult result;
  std::string cause;
  const auto keep_first = [&](const CatalogPath& path, cr_status_t status) {
    if (result.status != CR_STATUS_OK || status == CR_STATUS_OK) return;
    result = {status, path.full()};
    cause = take_cause();
  };
  walk_directories(
      CatalogPath{root, {std::to_string(dsid)}},
      [&](const CatalogPath& path, const DirPager&) {
        keep_first(path, count_directory(path, counters));
      },
      keep_first);
  if (!cause.empty()) keep_cause(cause);
  return result;
}

}  // namespace cli
