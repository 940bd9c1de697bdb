// How the database comes into being, is opened, runs transactions and goes.
#include <memory>

#include "host/host.h"
#include "podb/po_database_internal.h"
#include "podb/sqlite_podb.h"
#include "sqlitedb/failure_internal.h"

namespace {

// However its initialisation was interrupted, a connection that never became an open one goes: it
// would answer for an open one ever after.
class HalfOpenGuard {
 public:
  explicit HalfOpenGuard(sqlitedb::sqlite3_wrapper& guarded) : connection_(guarded) {}
  HalfOpenGuard(const HalfOpenGuard&) = delete;
  HalfOpenGuard& operator=(const HalfOpenGuard&) = delete;
  ~HalfOpenGuard() {
    if (!connection_.has_handle() || connection_.is_open()) return;
    try {
      connection_.close_db(sqlitedb::kCloseRetries);
    } catch (...) {  // of a host function that ran out of memory, which the caller learns anyway
    }
  }

 private:
  sqlitedb::sqlite3_wrapper& connection_;
};

using Opening = cr_status_t (sqlitedb::sqlite3_wrapper::*)();

cr_status_t opened_by(Opening open, const char* operation, const std::string& file,
                      sqlitedb::sqlite3_wrapper& connection) {
  try {
    return (connection.*open)();
  } catch (const sqlitedb::db_exception& caught) {
    ErrorA(caught.cr_status(), "%s: Failed to open sqlite3 database %s [%d]: %s", operation,
           file.c_str(), caught.errcode(), caught.what());
    return caught.cr_status();
  }
}

}  // namespace

SQLitePODB::SQLitePODB(const std::string& catalog_root, const std::string& directory)
    : PODB(catalog_root, directory),
      dbfile_path(directory + "/" + dbfilename()),
      db_dir(directory),
      db(std::make_unique<po_database>(dbfile_path, catalog_root)) {}

SQLitePODB::SQLitePODB(const boost::filesystem::path& catalog_root,
                       const boost::filesystem::path& directory)
    : SQLitePODB(catalog_root.string(), directory.string()) {}

SQLitePODB::~SQLitePODB() = default;

std::shared_ptr<PODB> SQLitePODBFactory::create_podb(const std::string& root,
                                                     const std::string& dir) {
  return std::make_shared<SQLitePODB>(root, dir);
}

std::string SQLitePODB::dbfilename() { return "po.db"; }

std::string SQLitePODB::get_dbfile_path() { return dbfile_path; }

std::string SQLitePODB::get_db_dir() { return db_dir; }

cr_status_t SQLitePODB::open() {
  return opened_by(&po_database::open_db, "open", dbfile_path, *db);
}

cr_status_t SQLitePODB::checkopen() {
  const boost::unique_lock<boost::mutex> lock(mutex);
  return opened_by(&po_database::checkopen, "checkopen", dbfile_path, *db);
}

cr_status_t SQLitePODB::check_db_existence(bool create) {
  const cr_status_t status = checkopen();
  if (status != CR_STATUS_NOT_FOUND || !create) return status;
  InfoA(CR_STATUS_NOT_FOUND, "Try to initialize PO database %s", dbfile_path.c_str());
  return init_db();
}

cr_status_t SQLitePODB::init_db() {
  const boost::unique_lock<boost::mutex> lock(mutex);
  const HalfOpenGuard guard(*db);
  const cr_status_t status =
      sqlitedb::catching_db_exception("init_db", [this] { return db->init_db(); });
  if (status != CR_STATUS_OK) {
    ErrorA(status, "Failed to initialize PO database %s", dbfile_path.c_str());
    return status;
  }
  write_podb_version();
  return CR_STATUS_OK;
}

cr_status_t SQLitePODB::exec_sql(const std::string& sql, void* context) {
  return exec_sql_impl(sql, context);
}

cr_status_t SQLitePODB::exec_sql_impl(const std::string& sql, void* context) {
  if (!db->is_open()) return CR_STATUS_NOT_FOUND;
  return sqlitedb::catching_db_exception("exec_sql_impl", [&] { return db->exec(sql, context); });
}

// SQLite has ended the transaction that the caller believes to be open.
bool SQLitePODB::transaction_lost() const {
  return is_transaction_active(nullptr) && !db->in_transaction();
}

cr_status_t SQLitePODB::refuse_lost_transaction(const char* operation) const {
  ErrorA(CR_STATUS_FAILED, "%s: the transaction of %s was lost, roll it back first", operation,
         dbfile_path.c_str());
  return CR_STATUS_FAILED;
}

cr_status_t SQLitePODB::exec_write(const std::string& sql) {
  if (transaction_lost()) return refuse_lost_transaction("exec_write");
  return exec_sql(sql, nullptr);
}

cr_status_t SQLitePODB::do_begin_transaction() {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (transaction_lost()) return refuse_lost_transaction("begin_transaction");
  return db->begin_transaction();
}

cr_status_t SQLitePODB::do_commit_transaction() {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (transaction_lost()) return refuse_lost_transaction("commit_transaction");
  return db->commit_transaction();
}

cr_status_t SQLitePODB::do_rollback_transaction() {
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  if (!is_transaction_active(nullptr)) {
    InfoA(0, "%s: DB[%s] transaction is not active, skipped rollback operation.",
          "do_rollback_transaction", dbfile_path.c_str());
    return CR_STATUS_OK;
  }
  return transaction_lost() ? CR_STATUS_OK : db->rollback_transaction();
}

bool SQLitePODB::potable_exists() {
  if (check_db_existence(false) != CR_STATUS_OK) return false;
  unsigned long tables = 0;
  const cr_status_t status =
      count_query("SELECT count(*) FROM sqlite_master WHERE type='table' AND name='po'", &tables);
  return status == CR_STATUS_OK && tables != 0;
}

bool SQLitePODB::db_integrity_OK() {
  std::string problems;
  if (db->run_integrity_check(problems)) return true;
  ErrorA(CR_STATUS_FAILED, "Failed to run integrity check on %s, need recover. %s",
         get_dbfile_path().c_str(), problems.c_str());
  return false;
}

cr_status_t SQLitePODB::drop_db_if_empty() {
  if (check_db_existence(false) != CR_STATUS_OK) return CR_STATUS_NOT_FOUND;
  unsigned long has_rows = 1;  // unless the answer says otherwise
  const cr_status_t status = count_query("SELECT EXISTS (SELECT * FROM po)", &has_rows);
  if (status != CR_STATUS_OK || has_rows != 0) return CR_STATUS_NOT_EMPTY;
  // Rows that only seem to be gone would be lost for good.
  return db_integrity_OK() ? db->drop_db() : CR_STATUS_NOT_EMPTY;
}

cr_status_t SQLitePODB::close_db(unsigned int) { return db->close_db(sqlitedb::kCloseRetries); }
