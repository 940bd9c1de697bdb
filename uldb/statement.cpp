#include "uldb/statement_internal.h"

#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "base/hardening_internal.h"
#include "base/sqlite_codes_internal.h"
#include "host/log.h"
#include "sqlitedb/durable_internal.h"
#include "uldb/sqlite_uldb_internal.h"

namespace {

std::int64_t file_size(sqlite3* db) {
  sqlite3_file* file = nullptr;
  sqlite3_file_control(db, "main", SQLITE_FCNTL_FILE_POINTER, &file);
  sqlite3_int64 size = kAnySize;
  const bool open = file != nullptr && file->pMethods != nullptr;
  return open && file->pMethods->xFileSize(file, &size) == SQLITE_OK ? size : kAnySize;
}

}  // namespace

cr_status_t decode(const Blob& blob, std::unique_ptr<UDCIDRecord>& record) {
  record.reset(new (std::nothrow) UDCIDRecord);
  if (record == nullptr) return CR_STATUS_NO_MEMORY;
  // Deserialize only reads.
  auto* bytes = const_cast<unsigned char*>(blob.bytes);
  const cr_status_t status = record->Deserialize(bytes, blob.size);
  if (status != CR_STATUS_OK) record.reset();
  return status;
}

Statement::Statement(sqlite3* connection, const std::string& path, const StatementTexts& texts,
                     StatementPtr* kept)
    : db_(connection), path_(path), texts_(texts), kept_(kept) {}

cr_status_t Statement::prepare() {
  limit_values(db_, texts_.writes ? kAnySize : file_size(db_));
  if (texts_.writes) judged_ = sqlitedb::make_commits_durable(db_, nullptr);
  return prepare_beside();
}

// A kept statement follows changes of the schema by itself, as one does that was just prepared with
// what the connection remembers of it.
cr_status_t Statement::prepare_beside() {
  if (kept_ != nullptr) statement_ = std::move(*kept_);
  if (judged_ == SQLITE_OK && statement_ == nullptr) {
    sqlite3_stmt* made = nullptr;
    judged_ = sqlite3_prepare_v3(db_, texts_.sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
    statement_.reset(made);
  }
  judged_ = without_false_damage(db_, judged_);
  return judged_ == SQLITE_OK ? CR_STATUS_OK : failed(judged_, texts_.prepare, texts_.sql);
}

cr_status_t Statement::bind_poid(const char* poid) {
  const int rc = sqlite3_bind_text(statement_.get(), 1, poid, -1, SQLITE_STATIC);
  return rc == SQLITE_OK ? CR_STATUS_OK : failed(rc, "bind poid ", poid);
}

cr_status_t Statement::bind_blob(const Blob& stored) {
  const int rc = sqlite3_bind_blob(statement_.get(), 2, stored.bytes, static_cast<int>(stored.size),
                                   SQLITE_STATIC);
  if (rc == SQLITE_OK) return CR_STATUS_OK;
  ErrorA(failure_status(rc), "%s: DB[%s] failed to bind blob (%s).", texts_.operation,
         path_.c_str(), sqlite3_errstr(rc));
  return failure_status(rc);
}

cr_status_t Statement::next_row() {
  const int rc = sqlite3_step(statement_.get());
  if (rc == SQLITE_ROW) return CR_STATUS_OK;
  return rc == SQLITE_DONE ? CR_STATUS_NOT_FOUND : failed_step(rc);
}

cr_status_t Statement::finish() {
  const int rc = sqlite3_step(statement_.get());
  return rc == SQLITE_DONE ? CR_STATUS_OK : failed_step(rc);
}

cr_status_t Statement::failed_step(int rc) {
  judged_ = without_false_damage(db_, rc);
  return failed(judged_, texts_.step, texts_.sql);
}

cr_status_t Statement::failed(int rc, const char* what, const char* subject) const {
  const cr_status_t status = failure_status(rc);
  ErrorA(status, "%s: DB[%s] failed to %s[%s] (%s).", texts_.operation, path_.c_str(), what,
         subject, sqlite3_errstr(rc));
  return status;
}

const char* Statement::text(int column) const {
  if (sqlite3_column_type(statement_.get(), column) != SQLITE_TEXT) return nullptr;
  const auto* found = reinterpret_cast<const char*>(sqlite3_column_text(statement_.get(), column));
  const auto size = static_cast<std::size_t>(sqlite3_column_bytes(statement_.get(), column));
  return found != nullptr && std::strlen(found) == size ? found : nullptr;
}

Blob Statement::blob(int column) const {
  const void* bytes = sqlite3_column_blob(statement_.get(), column);
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return {static_cast<const unsigned char*>(bytes), static_cast<unsigned int>(size)};
}

int Statement::release() {
  if (kept_ != nullptr && judged_ == SQLITE_OK) {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
    *kept_ = std::move(statement_);
  }
  statement_.reset();
  return judged_;
}

cr_status_t check_owner(const Statement& owner, const char* poid) {
  const char* name = owner.text(0);
  if (name != nullptr && std::strcmp(name, poid) == 0) return CR_STATUS_OK;
  ErrorA(CR_STATUS_BAD_DATA, "The index of UDCID lists leads POID %s to the row of %s", poid,
         name != nullptr ? name : "(null)");
  return CR_STATUS_BAD_DATA;
}
