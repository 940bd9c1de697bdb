#include "cli/sqlite_reader.h"

#include <cstddef>
#include <limits>

#include "base/hardening_internal.h"
#include "cli/catalog.h"
#include "cli/plain_path_vfs.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace cli {
namespace {

constexpr int kBusyMilliseconds = 10000;
constexpr std::size_t kPage = 512;

}  // namespace

int Connection::open(const std::string& file) {
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, plain_path_vfs());
  db_.reset(opened);
  if (code != SQLITE_OK) return code;
  harden(opened);
  limit_values(opened);
  // A reader leaves a write-ahead log to those who write it, and does not look for it.
  sqlite3_db_config(opened, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
  return sqlite3_busy_timeout(opened, kBusyMilliseconds);
}

bool Connection::has_moved() const {
  int moved = 0;
  if (handle() == nullptr) return false;
  sqlite3_file_control(handle(), "main", SQLITE_FCNTL_HAS_MOVED, &moved);
  return moved != 0;
}

// BEGIN alone takes no lock; the pragma does, and needs no schema.
ReadTransaction::ReadTransaction(const Connection& connection)
    : connection_(connection), code_(SQLITE_BUSY) {
  if (connection.has_moved()) return;
  code_ =
      sqlite3_exec(connection.handle(), "BEGIN; PRAGMA schema_version", nullptr, nullptr, nullptr);
}

ReadTransaction::~ReadTransaction() {
  sqlite3* const db = connection_.handle();
  const bool has_begun = sqlite3_get_autocommit(db) == 0;
  if (has_begun) sqlite3_exec(db, "ROLLBACK", nullptr, nullptr, nullptr);
}

Statement::Statement(const Connection& connection, const std::string& sql)
    : connection_(connection) {
  sqlite3_stmt* compiled = nullptr;
  compiled_ = sqlite3_prepare_v2(connection.handle(), sql.c_str(), -1, &compiled, nullptr);
  statement_.reset(compiled);
}

void Statement::bind(int parameter, std::int64_t value) {
  sqlite3_bind_int64(statement_.get(), parameter, value);
}

void Statement::bind(int parameter, const std::string& text) {
  sqlite3_bind_text64(statement_.get(), parameter, text.data(), text.size(), SQLITE_TRANSIENT,
                      SQLITE_UTF8);
}

int Statement::step() {
  if (compiled_ != SQLITE_OK) return compiled_;
  const bool takes_lock = !running_ && sqlite3_get_autocommit(connection_.handle()) != 0;
  if (takes_lock && connection_.has_moved()) return SQLITE_BUSY;
  const int code = sqlite3_step(statement_.get());
  running_ = code == SQLITE_ROW;
  return code;
}

void Statement::reset() {
  sqlite3_reset(statement_.get());
  running_ = false;
}

std::string_view Statement::view(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return data == nullptr ? std::string_view()
                         : std::string_view(data, static_cast<std::size_t>(size));
}

int walk_table(const Connection& connection, const std::string& table, const std::string& columns,
               const std::function<void(const Statement&)>& take,
               const std::function<void()>& page_done) {
  constexpr std::int64_t kLast = std::numeric_limits<std::int64_t>::max();
  Statement page(connection, "SELECT rowid, " + columns + " FROM " + table +
                                 " WHERE rowid >= ? ORDER BY rowid LIMIT " + std::to_string(kPage));
  for (std::int64_t first = std::numeric_limits<std::int64_t>::min();;) {
    page.bind(1, first);
    std::int64_t last = first;
    std::size_t count = 0;
    int code = page.step();
    for (; code == SQLITE_ROW; code = page.step(), ++count) {
      last = page.integer(0);
      take(page);
    }
    page.reset();
    page_done();
    if (last < first) return SQLITE_CORRUPT;  // the walk would go in circles
    if (code != SQLITE_DONE || count < kPage || last == kLast) return code;
    first = last + 1;
  }
}

int find_table(const Connection& connection, const std::string& table) {
  Statement found(connection, "SELECT 1 FROM sqlite_master WHERE type = 'table' AND name = ?");
  found.bind(1, table);
  return found.step();
}

int open_table(const std::string& file, const std::string& table, Connection* connection) {
  if (!is_there(file)) return SQLITE_DONE;
  const int code = connection->open(file);
  if (code == SQLITE_OK) return find_table(*connection, table);
  return is_there(file) ? code : SQLITE_DONE;  // removed meanwhile
}

int OpenTable::open(const std::string& file, const std::string& table) {
  const int code = open_table(file, table, &connection);
  exists = code == SQLITE_ROW;
  return exists || code == SQLITE_DONE ? SQLITE_OK : code;
}

cr_status_t status_of_sqlite(int code) {
  const cr_status_t status = sqlitedb::db_exception::dberr_to_crstatus(code & 0xff);
  return status == CR_STATUS_OK ? CR_STATUS_FAILED : status;
}

}  // namespace cli
