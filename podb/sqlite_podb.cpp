// Single rows and properties.
#include "podb/sqlite_podb.h"

#include <sqlite3.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "base/adler32.h"
#include "host/host.h"
#include "po/host_values_internal.h"
#include "podb/po_database_internal.h"
#include "podb/statements_internal.h"

namespace {

// A row is as large as its statement may be: this bound, with the NUL at the end, is part of the
// store. A statement that does not fit is cut, inside a literal or before its closing bracket, and
// so fails in SQLite.
constexpr int kStatementSize = 2048;

constexpr const char* kVersionProperty = "db_version";

// What sqlite3_snprintf makes of these texts with %Q; it would take as long as a fifth of the
// insertion itself.
std::string entry_statement(std::initializer_list<const char*> texts, std::uint32_t crc) {
  constexpr std::size_t kUsualSize = 512;
  std::string sql;
  sql.reserve(kUsualSize);
  sql = "INSERT OR REPLACE INTO po VALUES (";
  for (const char* text : texts) {
    base::append_sql_literal(sql, text);
    sql += ", ";
  }
  sql += std::to_string(crc);
  sql += ')';
  if (sql.size() >= kStatementSize) sql.resize(kStatementSize - 1);
  return sql;
}

std::string property_statement(const std::string& name, const std::string& value) {
  char text[kStatementSize] = {};
  sqlite3_snprintf(kStatementSize, text, "INSERT OR REPLACE INTO registry VALUES (%Q, %Q)",
                   name.c_str(), value.c_str());
  return text;
}

}  // namespace

std::uint32_t SQLitePODB::calculate_crc(const char* basename, const char* poid,
                                        const char* content) {
  std::uint32_t crc = base::kAdler32Start;
  for (const char* text : {basename, poid, content}) {
    crc = base::adler32(crc, text, std::strlen(text));
  }
  return crc;
}

cr_status_t SQLitePODB::put(PO* po) {
  if (po == nullptr) return CR_STATUS_BAD_ARG;
  // Copied: stripping the location empties what the record returned.
  const std::string basename = text_or_empty(POGetBasename(po->record()));
  const std::string poid = text_or_empty(POGetHashRef(po->record()));
  if (basename.empty()) return CR_STATUS_BAD_ARG;
  const cr_status_t opened = check_db_existence(true);
  if (opened != CR_STATUS_OK) return opened;
  const unsigned int stripped = po->remove_info();
  if (stripped != 0) return as_status(stripped);
  const HostString text = printed(po->record());
  // A host that makes no text and gives no reason has an empty one to store: intended.
  if (text == nullptr && host_status() != CR_STATUS_OK) {
    const cr_status_t status = host_status();
    ErrorA(status, "Failed to convert PO %s to string", basename.c_str());
    return status;
  }
  const char* const content = text == nullptr ? "" : text.get();
  const std::uint32_t crc = calculate_crc(basename.c_str(), poid.c_str(), content);
  return exec_write(entry_statement({basename.c_str(), poid.c_str(), content}, crc));
}

cr_status_t SQLitePODB::get(const std::string& basename, PO* po, bool) { return get(basename, po); }

cr_status_t SQLitePODB::get(const std::string& basename, PO* po) {
  if (po == nullptr) return CR_STATUS_BAD_ARG;
  const cr_status_t opened = check_db_existence(false);
  set_host_status(opened);
  if (opened != CR_STATUS_OK) return CR_STATUS_NOT_FOUND;
  QueryContext context(this, QUERY_PO, po);
  context.name = &basename;
  const cr_status_t status = exec_sql(kSelectEntries + where_name_is(basename), &context);
  const bool damaged = context.status != CR_STATUS_OK;
  // By a damaged index nothing is found or stored safely.
  const bool misled = context.status == CR_STATUS_CORRUPT;
  set_host_status(misled ? CR_STATUS_CORRUPT : damaged ? CR_STATUS_OK : status);
  // The row's own failure says more than that of the statement which it stopped.
  if (damaged) return context.status;
  return status == CR_STATUS_OK && context.rows == 0 ? CR_STATUS_NOT_FOUND : status;
}

bool SQLitePODB::exists(const std::string& basename) {
  unsigned long n = 0;
  cr_status_t status = check_db_existence(false);
  if (status == CR_STATUS_OK) status = count_query(kCountEntries + where_name_is(basename), &n);
  set_host_status(status);
  return status == CR_STATUS_OK && n > 0;
}

cr_status_t SQLitePODB::del(const std::string& basename) {
  return del_where(where_name_is(basename));
}

cr_status_t SQLitePODB::del(const std::vector<std::string>& basenames) {
  std::string list;
  for (const std::string& basename : basenames) {
    if (!list.empty()) list += ", ";
    list += quoted(basename);
  }
  if (list.empty()) list = quoted("");
  return del_where(" WHERE basename IN (" + list + ")");
}

cr_status_t SQLitePODB::del_where(const std::string& condition) {
  const cr_status_t opened = check_db_existence(false);
  if (opened != CR_STATUS_OK) return opened;
  const cr_status_t status = exec_write("DELETE FROM po" + condition);
  if (status != CR_STATUS_OK) return status;
  return db->get_changes() == 0 ? CR_STATUS_NOT_FOUND : CR_STATUS_OK;
}

cr_status_t SQLitePODB::count(unsigned long* n) {
  if (n == nullptr) return CR_STATUS_BAD_ARG;
  if (check_db_existence(false) != CR_STATUS_OK) return CR_STATUS_NOT_FOUND;
  *n = 0;
  return count_query(kCountEntries, n);
}

cr_status_t SQLitePODB::count_query(const std::string& sql, unsigned long* n) {
  QueryContext context(this, QUERY_COUNT, n);
  const cr_status_t status = exec_sql(sql, &context);
  return status != CR_STATUS_OK ? status : context.status;
}

cr_status_t SQLitePODB::get_property(const std::string& name, std::string* value) {
  if (value == nullptr) return CR_STATUS_BAD_ARG;
  if (!db->is_open()) return CR_STATUS_NOT_FOUND;
  QueryContext context(this, QUERY_STRING, value);
  const cr_status_t status =
      exec_sql("SELECT value FROM registry WHERE name = " + quoted(name), &context);
  if (status != CR_STATUS_OK) return status;
  return context.rows == 0 ? CR_STATUS_NOT_FOUND : CR_STATUS_OK;
}

cr_status_t SQLitePODB::set_property(const std::string& name, const std::string& value) {
  if (!db->is_open()) return CR_STATUS_NOT_FOUND;
  return exec_write(property_statement(name, value));
}

void SQLitePODB::load_podb_version() {
  version = 0;
  std::string value;
  if (get_property(kVersionProperty, &value) != CR_STATUS_OK) return;
  version = static_cast<std::uint32_t>(std::strtoull(value.c_str(), nullptr, 10));
}

// Not refused after a lost transaction: a file just created holds no part of it.
void SQLitePODB::write_podb_version() {
  const std::string sql = property_statement(kVersionProperty, "1");
  if (exec_sql(sql, nullptr) == CR_STATUS_OK) version = 1;
}
