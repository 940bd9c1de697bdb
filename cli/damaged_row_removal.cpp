#include <fmt/format.h>

#include "cli/command.h"
#include "cli/directory_batch.h"
#include "cli/removal.h"
#include "cli/stored_rows.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

// A record that the checksum covers is what was stored, whatever else is wrong with the row.
bool is_known_protected(const RawRow& row, const ComplianceClock& clock) {
  const std::uint32_t checksum = SQLitePODB::calculate_crc(
      row.basename.bytes.c_str(), row.poid.bytes.c_str(), row.content.bytes.c_str());
  if (row.crc != checksum) return false;
  try {
    return protected_entry(FilePO(row.content.bytes).record(), clock);
  } catch (const Cr_ErrnoException&) {
    return false;
  }
}

class DamagedRowRemoval : public Removal {
 public:
  DamagedRowRemoval(const CatalogPath& directory, std::int64_t rowid)
      : Removal(directory), rowid_(rowid) {}

  Refusal refusal() const override {
    const cr_status_t reachable = check_directory(path_);
    if (reachable != CR_STATUS_OK) return {reachable, "no such directory in the catalog"};
    RawRow row;
    const std::string database = path_.child(SQLitePODB::dbfilename()).full();
    const cr_status_t status = read_row(database, rowid_, &row);
    if (status == CR_STATUS_NOT_FOUND) {
      return {status, fmt::format("no row of its database has the rowid {}", rowid_)};
    }
    if (status != CR_STATUS_OK) return {status, "not removed: its database cannot be read"};
    return row_refusal(row);
  }

  CatalogPath guard() const override { return path_; }

  // Which content the row had nobody knows, nor its size.
  cr_status_t apply(IngestOutcome* outcome) const override {
    SQLitePODB db(path_.root, path_.full());
    cr_status_t status = db.check_db_existence(false);
    if (status != CR_STATUS_OK) return status;
    status = db.exec_sql(fmt::format("DELETE FROM po WHERE rowid = {}", rowid_), nullptr);
    if (status != CR_STATUS_OK) return status;
    outcome->recount = true;
    settle_lists(db);
    return CR_STATUS_OK;
  }

 private:
  Refusal row_refusal(const RawRow& row) const {
    const std::string name = printable(row.basename.bytes);
    if (row_faults(row).empty()) {
      return {CR_STATUS_OK, fmt::format("not removed: row {} ({}) is sound: rm without "
                                        "--damaged-row removes it",
                                        rowid_, name)};
    }
    if (!is_known_protected(row, clock_)) return {};
    return {CR_STATUS_IMMUTABLE,
            fmt::format("not removed: row {} ({}) is protected, as its record says", rowid_, name)};
  }

  // Takes away the list of a content that has no row any more. What fails here the next ingest
  // does, and `check` names it until then.
  void settle_lists(SQLitePODB& db) const {
    IngestJob job;
    job.root = path_.root;
    job.dsid = *path_.dsid();
    IngestOutcome unused;
    try {
      run_batch(
          job, db, [](RowBatch&) { return true; }, &unused);
    } catch (const DirectoryError&) {
      return;
    }
  }

  const std::int64_t rowid_;
};

}  // namespace

std::unique_ptr<Removal> removal_of_damaged_row(const CatalogPath& directory, std::int64_t rowid) {
  return std::make_unique<DamagedRowRemoval>(directory, rowid);
}

}  // namespace cli
