#include "cli/sqlite_reader.h"

namespace cli {
namespace {

constexpr int kBusyMilliseconds = 10000;

}  // namespace

int Connection::open(const std::string& file) {
  sqlite3* opened = nullptr;
  const int code = sqlite3_open_v2(file.c_str(), &opened, SQLITE_OPEN_READWRITE, nullptr);
  db_.reset(opened);
  if (code != SQLITE_OK) return code;
  // A schema changed by hand gets no chance to run anything.
  sqlite3_db_config(opened, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
  sqlite3_db_config(opened, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
  return sqlite3_busy_timeout(opened, kBusyMilliseconds);
}

Statement::Statement(const Connection& connection, const std::string& sql) {
  sqlite3_stmt* compiled = nullptr;
  compiled_ = sqlite3_prepare_v2(connection.handle(), sql.c_str(), -1, &compiled, nullptr);
  statement_.reset(compiled);
}

int Statement::step() {
  return compiled_ != SQLITE_OK ? compiled_ : sqlite3_step(statement_.get());
}

void Statement::rewind(std::int64_t parameter) {
  sqlite3_reset(statement_.get());
  sqlite3_bind_int64(statement_.get(), 1, parameter);
}

std::string Statement::bytes(int column) const {
  const auto* data = static_cast<const char*>(sqlite3_column_blob(statement_.get(), column));
  const int size = sqlite3_column_bytes(statement_.get(), column);
  return data == nullptr ? "" : std::string(data, static_cast<std::size_t>(size));
}

}  // namespace cli
