#include "podb/po_database_internal.h"

#include <sqlite3.h>

#include <cstdlib>

#include "host/host.h"
#include "po/file_po.h"
#include "po/host_values_internal.h"
#include "sqlitedb/failure_internal.h"

namespace {

// What a row that fails its checks answers to SQLite and, from a single read, to the caller.
constexpr int kBadRow = -1;

constexpr int kColumnsOfPO = 4;

bool is_po_query(std::uint32_t type) {
  return type == QUERY_PO || type == QUERY_PO_LIST || type == QUERY_PROCESS;
}

// SQLite answers a list of POIDs in ascending order, so the place is nearly always the last.
void add_ascending(std::set<std::string>& names, const char* value) {
  names.emplace_hint(names.end(), value);
}

// Takes the one column of a query that is not about whole rows.
void take_value(std::uint32_t type, void* output, const char* value) {
  switch (type) {
    case QUERY_NAME_LIST:
      static_cast<std::vector<std::string>*>(output)->emplace_back(value);
      break;
    case QUERY_NAME_SET:
      add_ascending(*static_cast<std::set<std::string>*>(output), value);
      break;
    case QUERY_COUNT:
      *static_cast<unsigned long*>(output) = std::strtoull(value, nullptr, 10);
      break;
    default:
      *static_cast<std::string*>(output) = value;
      break;
  }
}

std::string description(int ncols, const char* const* values, const char* const* names) {
  const auto shown = [](const char* text) { return std::string(text == nullptr ? "NULL" : text); };
  std::string row;
  for (int i = 0; i < ncols; ++i) {
    if (i > 0) row += ", ";
    row += shown(names[i]) + "(" + shown(values[i]) + ")";
  }
  return row;
}

}  // namespace

cr_status_t SQLitePODB::po_database::on_db_createtable() {
  const cr_status_t begun = begin_transaction();
  if (begun != CR_STATUS_OK) return begun;
  const cr_status_t created = create_tables();
  if (created == CR_STATUS_OK) return commit_transaction();
  rollback_transaction();  // the file is deleted anyway
  return created;
}

cr_status_t SQLitePODB::po_database::create_tables() {
  const std::string collation = OSIsCaseSensitive() ? "" : "COLLATE NOCASE";
  const std::string entries = "CREATE TABLE IF NOT EXISTS po (    basename TEXT " + collation +
                              " PRIMARY KEY,    poid TEXT,    content TEXT,    crc INT)";
  for (const char* const statement :
       {entries.c_str(), "CREATE INDEX IF NOT EXISTS po_poid ON po(poid)",
        "CREATE TABLE IF NOT EXISTS registry (    name TEXT PRIMARY KEY,    value TEXT)"}) {
    const cr_status_t status = exec(statement, nullptr);
    if (status != CR_STATUS_OK) return status;
  }
  InfoA(0, "Create tables successfully");
  return CR_STATUS_OK;
}

int SQLitePODB::po_database::on_db_callback(void* ctx, int ncols, char** values, char** names) {
  if (ctx == nullptr || values == nullptr || names == nullptr) return CR_STATUS_BAD_ARG;
  auto& context = *static_cast<QueryContext*>(ctx);
  ++context.rows;
  if (context.type > QUERY_PROCESS) {
    ErrorA(CR_STATUS_NONE, "%s: unknown database query type %u", "on_db_callback", context.type);
    return kBadRow;
  }
  context.status = take_row(context, ncols, values, names);
  return context.skip_bad_rows ? 0 : context.status;
}

cr_status_t SQLitePODB::po_database::take_row(QueryContext& context, int ncols, char** values,
                                              char** names) const {
  const int expected = is_po_query(context.type) ? kColumnsOfPO : 1;
  if (check_parameter(ncols, values, names, expected) != 0) return kBadRow;
  if (!is_po_query(context.type)) {
    take_value(context.type, context.output, values[0]);
    return CR_STATUS_OK;
  }
  if (check_crc(values[0], values[1], values[2], values[3]) != 0) return kBadRow;
  return is_asked_for(context, values[0]) ? take_po(context, values) : CR_STATUS_CORRUPT;
}

// By a damaged index SQLite finds a sound row of another name.
bool SQLitePODB::po_database::is_asked_for(const QueryContext& context, const char* name) {
  if (context.name == nullptr) return true;
  const char* const asked = context.name->c_str();
  if (sqlite3_stricmp(name, asked) == 0) return true;  // the table may ignore the case
  ErrorA(CR_STATUS_CORRUPT, "The index of names leads %s to the row of %s", asked, name);
  return false;
}

cr_status_t SQLitePODB::po_database::take_po(QueryContext& context, char** values) const {
  if (context.type == QUERY_PO) return fill(context, values, *static_cast<PO*>(context.output));
  // Counted, because a visitor may wrap what it is handed in a handle of its own.
  const boost::intrusive_ptr<PO> entry(new FilePO(context.owner->get_dsid()));
  if (fill(context, values, *entry) != CR_STATUS_OK) return kBadRow;
  if (context.type == QUERY_PROCESS) {
    static_cast<POProcessor*>(context.output)->process(entry.get());
  } else {
    static_cast<POQueue*>(context.output)->push_back(entry);
  }
  return CR_STATUS_OK;
}

cr_status_t SQLitePODB::po_database::fill(QueryContext& context, char** values, PO& po) const {
  context.path.assign(context.owner->db_dir).append("/").append(values[0]);
  context.text.assign(values[2]);
  const auto status = as_status(po.set(root, context.text, context.path));
  if (status != CR_STATUS_OK) {
    ErrorA(status, "Failed to set PO [%s][%s]", context.path.c_str(), context.text.c_str());
  }
  return status;
}

int SQLitePODB::po_database::check_crc(const char* basename, const char* poid, const char* content,
                                       const char* crc_text) {
  const std::uint32_t computed = calculate_crc(basename, poid, content);
  if (computed == static_cast<std::uint32_t>(std::strtoull(crc_text, nullptr, 10))) return 0;
  ErrorA(CR_STATUS_NONE, "%s: CRC mismatch for PO %s. Expected %u, actually %s", "check_crc",
         basename, computed, crc_text);
  return kBadRow;
}

int SQLitePODB::po_database::check_parameter(int ncols, const char* const* values,
                                             const char* const* names, int expected) {
  if (ncols != expected) {
    ErrorA(CR_STATUS_NONE, "%s: bad database format (input %d fields while expect %d)",
           "check_parameter", ncols, expected);
    return kBadRow;
  }
  for (int i = 0; i < ncols; ++i) {
    if (values[i] != nullptr) continue;
    ErrorA(CR_STATUS_NONE, "%s: bad PO record in database: %s", "check_parameter",
           description(ncols, values, names).c_str());
    return kBadRow;
  }
  return 0;
}
