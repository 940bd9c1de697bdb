#include "podb/podb.h"

POProcessor::~POProcessor() = default;

PODBFactory::~PODBFactory() = default;

PODB::PODB(const std::string& catalog_root, const std::string& directory)
    : dir(directory),
      dsid(PO::CalculateDsid(catalog_root, directory)),
      root(catalog_root),
      last_transaction_change(gethrtime()) {}

PODB::~PODB() = default;

cr_status_t PODB::get(const std::string&, PO*) { return CR_STATUS_NOT_PROVIDED; }

cr_status_t PODB::del(const std::string&, const std::string&) { return CR_STATUS_NOT_PROVIDED; }

cr_status_t PODB::process_by_pattern(const std::string&, POProcessor*) {
  return CR_STATUS_NOT_PROVIDED;
}

cr_status_t PODB::immutable_catalog_query(const std::string&, POQueue*, bool) {
  return CR_STATUS_NOT_PROVIDED;
}

cr_status_t PODB::select(const QueryParams&, std::vector<std::string>*, POQueue*) {
  return CR_STATUS_NOT_PROVIDED;
}

cr_status_t PODB::drop_db_if_empty() { return CR_STATUS_NOT_EMPTY; }

cr_status_t PODB::close_db(unsigned int) { return CR_STATUS_OK; }

std::string PODB::get_dbfile_path() { return ""; }

std::string PODB::get_db_dir() { return ""; }

OpsCount PODB::get_podb_ops() { return {}; }

OpsCount PODB::get_uldb_ops() { return {}; }

void PODB::clear_ops() {}

bool PODB::db_integrity_OK() { return false; }

cr_status_t PODB::set_retention(const std::string&, unsigned long, long) {
  return CR_STATUS_NOT_PROVIDED;
}

cr_status_t PODB::get_retention(const std::string&, tolvfs_worm_info_t&) {
  return CR_STATUS_NOT_PROVIDED;
}

cr_status_t PODB::begin_transaction() {
  const cr_status_t status = do_begin_transaction();
  last_transaction_change = gethrtime();
  if (status == CR_STATUS_OK) transaction_active = true;
  return status;
}

cr_status_t PODB::commit_transaction() { return end_transaction(do_commit_transaction()); }

cr_status_t PODB::rollback_transaction() {
  const cr_status_t status = end_transaction(do_rollback_transaction());
  clear_ops();
  return status;
}

cr_status_t PODB::end_transaction(cr_status_t status) {
  last_transaction_change = gethrtime();
  if (status == CR_STATUS_OK) transaction_active = false;
  return status;
}

bool PODB::is_transaction_active(unsigned long* seconds) const {
  if (seconds != nullptr) {
    const double elapsed = hrtime2seconds(gethrtime() - last_transaction_change);
    *seconds = elapsed > 0 ? static_cast<unsigned long>(elapsed) : 0;
  }
  return transaction_active;
}

cr_status_t PODB::get_basenames(std::vector<std::string>* out) {
  return select_basenames(out, "", ORDER_ASCENDING, 0);
}
