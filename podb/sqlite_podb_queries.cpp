// Reads of many rows. Patterns and conditions are the caller's SQL and stand in the statements as
// given.
#include <boost/lexical_cast.hpp>

#include "host/host.h"
#include "podb/po_database_internal.h"
#include "podb/sqlite_podb.h"
#include "podb/statements_internal.h"

namespace {

constexpr std::size_t kMaxPattern = 2048;

std::string selection(const char* head, const QueryParams& q) {
  std::string sql = head;
  if (!q.where.empty()) sql += " WHERE " + q.where + " ";
  if (q.order == ORDER_ASCENDING) sql += " ORDER BY basename ASC ";
  if (q.order == ORDER_DESCENDING) sql += " ORDER BY basename DESC ";
  if (q.limit != 0) sql += " LIMIT " + boost::lexical_cast<std::string>(q.limit);
  return sql;
}

// What a pattern search selects. A pattern that is too long gives CR_STATUS_FAILED here, though
// PatternEscape says CR_STATUS_BAD_ARG: intended.
cr_status_t pattern_params(const std::string& pattern, QueryParams& q) {
  q.allow_missing = true;
  if (OSIsCaseSensitive()) {
    q.where = "basename GLOB '" + pattern + "'";
    return CR_STATUS_OK;
  }
  std::string escaped;
  if (SQLitePODB::PatternEscape(pattern, escaped) != CR_STATUS_OK) return CR_STATUS_FAILED;
  q.where = "basename LIKE '" + escaped + "' ESCAPE '\\'";
  return CR_STATUS_OK;
}

}  // namespace

cr_status_t SQLitePODB::PatternEscape(const std::string& pattern, std::string& out) {
  if (pattern.size() > kMaxPattern) {
    ErrorA(CR_STATUS_BAD_ARG, "%s: Pattern [%s] is too long, it's beyond %u.", "PatternEscape",
           pattern.c_str(), static_cast<unsigned int>(kMaxPattern));
    return CR_STATUS_BAD_ARG;
  }
  std::string escaped;
  for (const char c : pattern) {
    if (c == '\0') break;
    if (c == '_' || c == '%') escaped += '\\';
    escaped += c == '*' ? '%' : c;
  }
  out = escaped;
  return CR_STATUS_OK;
}

cr_status_t SQLitePODB::select(const QueryParams& q, std::vector<std::string>* names,
                               POQueue* pos) {
  if (names == nullptr && pos == nullptr) return CR_STATUS_BAD_ARG;
  if (names != nullptr) return run_selection(kSelectNames, q, QUERY_NAME_LIST, names);
  return run_selection(kSelectEntries, q, QUERY_PO_LIST, pos);
}

// Listings of entries leave damaged rows out; names are not checked.
cr_status_t SQLitePODB::run_selection(const char* head, const QueryParams& q, std::uint32_t type,
                                      void* output) {
  if (check_db_existence(false) != CR_STATUS_OK) {
    return q.allow_missing ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
  }
  QueryContext context(this, type, output);
  context.skip_bad_rows = type != QUERY_NAME_LIST;
  return exec_sql(selection(head, q), &context);
}

cr_status_t SQLitePODB::select_basenames(std::vector<std::string>* out, const std::string& where,
                                         OrderType order, unsigned long limit) {
  QueryParams q;
  q.where = where;
  q.order = order;
  q.limit = limit;
  return select(q, out, nullptr);
}

cr_status_t SQLitePODB::find_by_pattern(const std::string& pattern, POQueue* out, bool) {
  QueryParams q;
  const cr_status_t status = pattern_params(pattern, q);
  return status != CR_STATUS_OK ? status : select(q, nullptr, out);
}

cr_status_t SQLitePODB::process_by_pattern(const std::string& pattern, POProcessor* p) {
  if (p == nullptr) return CR_STATUS_BAD_ARG;
  QueryParams q;
  const cr_status_t status = pattern_params(pattern, q);
  return status != CR_STATUS_OK ? status : run_selection(kSelectEntries, q, QUERY_PROCESS, p);
}

cr_status_t SQLitePODB::find_by_cursor(const std::string& cursor, std::vector<std::string>* out,
                                       unsigned long) {
  if (out == nullptr) return CR_STATUS_BAD_ARG;
  if (check_db_existence(false) != CR_STATUS_OK) return CR_STATUS_NOT_FOUND;
  QueryContext context(this, QUERY_NAME_LIST, out);
  return exec_sql(
      std::string(kSelectNames) + " WHERE basename > " + quoted(cursor) + " ORDER BY basename",
      &context);
}

bool SQLitePODB::backupid_exists(const std::string& backupid) {
  if (check_db_existence(false) != CR_STATUS_OK) return false;
  unsigned long n = 0;
  const cr_status_t status = count_query(
      std::string(kCountEntries) + " WHERE basename LIKE " + quoted(backupid + "%"), &n);
  return status == CR_STATUS_OK && n > 0;
}
