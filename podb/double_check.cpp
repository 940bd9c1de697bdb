// The server's consistency work: which POIDs do rows use, and which do they not?
#include <iterator>
#include <sstream>

#include "host/host.h"
#include "po/host_values_internal.h"
#include "podb/po_database_internal.h"
#include "podb/sqlite_podb.h"
#include "podb/statements_internal.h"

namespace {

// Keeps a statement below SQLite's limits while large sets need few of them.
constexpr int kBatch = 10240;

// Closes the list behind its last comma with a value that no row has.
constexpr const char* kEndOfList = "'placeholder')";

constexpr const char* kPoidIn = " WHERE poid IN (";

// Hands all POIDs to `run`, a statement per batch, until one fails. `run` may erase what it was
// given: each batch resumes after the last POID that was taken.
template <typename Run>
cr_status_t in_batches(const std::set<std::string>& poids, const std::string& head, Run run) {
  auto next = poids.begin();
  while (next != poids.end()) {
    std::string text = head;
    for (int n = 0; n < kBatch && next != poids.end(); ++n, ++next) {
      base::append_sql_literal(text, *next);
      text += ',';
    }
    const std::string last = *std::prev(next);
    std::ostringstream sql(text, std::ios_base::ate);
    sql.exceptions(std::ios_base::badbit);  // a text cut short must not be run
    const cr_status_t status = run(&sql);
    if (status != CR_STATUS_OK) return status;
    next = poids.upper_bound(last);
  }
  return CR_STATUS_OK;
}

}  // namespace

cr_status_t SQLitePODB::double_check(std::set<std::string>* affected, POQueue* out,
                                     std::set<std::string>* leak_candidates, unsigned long* found) {
  if (affected == nullptr || out == nullptr || leak_candidates == nullptr || found == nullptr) {
    return CR_STATUS_BAD_ARG;
  }
  cr_status_t status = check_db_existence(false);
  if (status == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;
  if (status != CR_STATUS_OK) return status;
  // A failure there is logged, and the check goes on: intended.
  double_check_affected_poset(affected, out);
  status = double_check_leak_candidates(leak_candidates);
  if (status != CR_STATUS_OK) return status;
  unsigned long n = 0;
  status = count(&n);
  if (status == CR_STATUS_OK) *found += n;
  return status;
}

cr_status_t SQLitePODB::double_check_affected_poset(std::set<std::string>* affected, POQueue* out) {
  const cr_status_t status =
      in_batches(*affected, std::string(kSelectEntries) + kPoidIn, [&](std::ostringstream* sql) {
        return double_check_partial_affected_poset(sql, affected, out);
      });
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: failed to double check affected POs", db_dir.c_str());
  }
  return status;
}

cr_status_t SQLitePODB::double_check_partial_affected_poset(std::ostringstream* sql,
                                                            std::set<std::string>* affected,
                                                            POQueue* out) {
  *sql << kEndOfList;
  const std::size_t before = out->size();
  QueryContext context(this, QUERY_PO_LIST, out);
  context.skip_bad_rows = true;
  const cr_status_t status = exec_sql(sql->str(), &context);
  for (std::size_t i = before; i < out->size(); ++i) {
    affected->erase(text_or_empty(POGetHashRef((*out)[i]->record())));
  }
  return status;
}

cr_status_t SQLitePODB::double_check_leak_candidates(std::set<std::string>* leak_candidates) {
  const cr_status_t status = in_batches(
      *leak_candidates, std::string("SELECT poid FROM po") + kPoidIn, [&](std::ostringstream* sql) {
        return double_check_partial_leak_candidates(sql, leak_candidates);
      });
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: failed to double check leak candidates", db_dir.c_str());
  }
  return status;
}

cr_status_t SQLitePODB::double_check_partial_leak_candidates(
    std::ostringstream* sql, std::set<std::string>* leak_candidates) {
  *sql << kEndOfList;
  std::set<std::string> used;
  QueryContext context(this, QUERY_NAME_SET, &used);
  const cr_status_t status = exec_sql(sql->str(), &context);
  for (const std::string& poid : used) leak_candidates->erase(poid);
  return status;
}
