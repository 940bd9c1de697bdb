#include "cli/directory_batch.h"

#include <utility>

#include "cli/cause.h"
#include "cli/database.h"
#include "cli/dir_list.h"
#include "cli/list_gaps.h"
#include "host/files.h"

namespace cli {
namespace {

constexpr int kAttempts = 3;

void mend_version(SQLitePODB& db, IngestOutcome* outcome) {
  db.load_podb_version();
  if (db.get_podb_version() != 0) return;
  const cr_status_t status = db.set_property("db_version", "1");
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database has no version"};
  outcome->mended(db.get_dbfile_path(), "mended: the database had no version");
}

void prepare_database(SQLitePODB& db, IngestOutcome* outcome) {
  DatabaseState state{};
  cr_status_t status = examine_database(db, &state);
  if (status == CR_STATUS_BAD_DATA || status == CR_STATUS_CORRUPT) {
    throw DirectoryError{CR_STATUS_CORRUPT,
                         "its po.db is damaged and left as it is: moved away, it is made anew from "
                         "the files"};
  }
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its database cannot be opened"};
  if (state == DatabaseState::present) mend_version(db, outcome);
  if (state != DatabaseState::leftover) return;
  // A journal beside it can stay: SQLite discards the journal of a database without content.
  status = keep_errno_of(wa_deletefile(db.get_dbfile_path().c_str()));
  if (status != CR_STATUS_OK) throw DirectoryError{status, "its empty database cannot be removed"};
  // A truncated database looks the same: the rows that it may have held are still counted.
  outcome->mended(db.get_dbfile_path(), "mended: the database was empty");
  outcome->recount = true;
}

// What it reads beside the library is closed before the library writes.
RowBatch begin_batch(const IngestJob& job, SQLitePODB& db, IngestOutcome* outcome) {
  const OpenTable entries = open_entry_table(db.get_dir());
  StoredRows rows = read_stored_rows(entries);
  return {job, db, std::move(rows), find_list_gaps(entries, db.get_dir(), outcome)};
}

// Whether the lists are to be looked at once more.
bool try_batch(const IngestJob& job, SQLitePODB& db, const std::function<bool(RowBatch&)>& work,
               IngestOutcome* outcome) {
  remove_unfinished_writes(db.get_dir());
  prepare_database(db, outcome);
  RowBatch batch = begin_batch(job, db, outcome);
  if (!work(batch)) return false;
  batch.commit();
  outcome->add(std::move(batch.outcome()));
  return batch.displaced_damage();
}

}  // namespace

void run_batch(const IngestJob& job, SQLitePODB& db, const std::function<bool(RowBatch&)>& work,
               IngestOutcome* outcome) {
  for (int attempt = 1;; ++attempt) {
    try {
      const bool again = try_batch(job, db, work, outcome);
      if (again)
        run_batch(
            job, db, [](RowBatch&) { return true; }, outcome);
      return;
    } catch (const ListsLost& lost) {
      if (attempt < kAttempts) continue;
      throw DirectoryError{lost.status, "its lists of containers cannot be written"};
    }
  }
}

}  // namespace cli
