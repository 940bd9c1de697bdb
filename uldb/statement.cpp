#include "uldb/statement_internal.h"

#include <cstring>
#include <new>
#include <utility>

#include "base/hardening_internal.h"
#include "host/log.h"
#include "sqlitedb/durable_internal.h"
#include "uldb/sqlite_uldb_internal.h"

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
  if (texts_.writes) {
    unlimit_values(db_);
    judged_ = sqlitedb::make_commits_durable(db_, nullptr);
  } else {
    limit_values(db_);
  }
  return prepare_beside();
}

// SQLite prepares a kept statement anew when the schema has changed.
cr_status_t Statement::prepare_beside() {
  const bool is_kept = kept_ != nullptr && *kept_ != nullptr;
  // Not of a connection that a subclass has closed by itself.
  if (is_kept && sqlite3_db_handle(kept_->get()) == db_) statement_ = std::move(*kept_);
  if (judged_ == SQLITE_OK && statement_ == nullptr) {
    sqlite3_stmt* made = nullptr;
    judged_ = sqlite3_prepare_v3(db_, texts_.sql, -1, SQLITE_PREPARE_PERSISTENT, &made, nullptr);
    statement_.reset(made);
  }
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

cr_status_t Statement::bind_choice(bool choice) {
  const int rc = sqlite3_bind_int(statement_.get(), 2, choice ? 1 : 0);
  return rc == SQLITE_OK ? CR_STATUS_OK : failed(rc, "bind a choice ", texts_.sql);
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
  judged_ = rc;
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

// After a failed preparation there is none.
int Statement::release() {
  if (kept_ != nullptr && judged_ == SQLITE_OK) {
    sqlite3_reset(statement_.get());
    sqlite3_clear_bindings(statement_.get());
    *kept_ = std::move(statement_);
  }
  statement_.reset();
  return judged_;
}

namespace {

// The first holds a list, so it is not empty.
bool equal(const Blob& a, const Blob& b) {
  return a.size == b.size && std::memcmp(a.bytes, b.bytes, a.size) == 0;
}

}  // namespace

cr_status_t check_owner(Statement& owner, const char* poid, const Blob* list) {
  owner.rewind();
  cr_status_t status = owner.bind_poid(poid);
  if (status == CR_STATUS_OK) status = owner.bind_choice(list != nullptr);
  if (status == CR_STATUS_OK) status = owner.next_row();
  if (status != CR_STATUS_OK) return status;
  const char* name = owner.text(0);
  const bool owns = name != nullptr && std::strcmp(name, poid) == 0;
  if (!owns || (list != nullptr && !equal(*list, owner.blob(1)))) {
    status = CR_STATUS_BAD_DATA;
    ErrorA(status, "The index of UDCID lists leads POID %s to the row of %s", poid,
           name != nullptr ? name : "(null)");
  }
  return status;
}
