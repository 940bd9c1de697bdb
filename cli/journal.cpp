#include "cli/journal.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/catalog.h"
#include "cli/dir_lock.h"
#include "cli/json.h"
#include "cli/protected_rows.h"
#include "cli/scratch_copy.h"
#include "host/files.h"
#include "sqlitedb/sqlite_wrapper.h"

namespace cli {
namespace {

// What came of it; the text is empty when everything was applied.
struct Result {
  cr_status_t status = CR_STATUS_OK;
  std::string text;
  ExitStatus exit = kFailed;
  std::int64_t changes = 0;  // rows, counted each time
};

class Replay : public sqlitedb::SQLiteApplyJournal {
 public:
  using SQLiteApplyJournal::SQLiteApplyJournal;
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;
  ~Replay() override = default;

  std::int64_t changes() const { return sqlite3_total_changes64(db); }
};

cr_status_t read_journal(const std::string& file, std::string* content, std::string* why) {
  *why = "the journal cannot be read";
  const cr_status_t status = wa_readfile(file.c_str(), content);
  if (status != CR_STATUS_OK) return status;
  // SQLite would take a NUL for the end of the journal.
  *why = "the journal holds a NUL byte";
  return content->find('\0') == std::string::npos ? CR_STATUS_OK : CR_STATUS_BAD_DATA;
}

Result result_of(cr_status_t status, std::int64_t changes) {
  if (status == CR_STATUS_OK) return {status, "", kDone, changes};
  if (status == CR_STATUS_BAD_ARG) {
    return {status, "lines that are no SQL were passed over; -v names them", kIncomplete, changes};
  }
  return {status, "stopped at a statement that failed, those before it are applied; -v names it",
          kFailed, changes};
}

Result replay(const std::string& database, const JournalApplyOptions& options,
              std::string content) {
  Replay journal(database);
  try {
    cr_status_t status = journal.checkopen();
    if (status != CR_STATUS_OK) return {status, "the database cannot be opened"};
    status = journal.exec_file_content(options.file, content, !options.line_by_line);
    if (!journal.in_transaction()) return result_of(status, journal.changes());
  } catch (const sqlitedb::db_exception& damage) {
    return {damage.cr_status(), std::string("stopped: ") + damage.what()};
  }
  const cr_status_t undone = journal.rollback_transaction();
  return {undone, "the journal left a transaction open: what came after its BEGIN is rolled back"};
}

// Why the journal is not for this database as it is; empty when nothing stands against it.
std::string objection(const std::string& database) {
  const ProtectedRows rows = find_protected_rows(database);
  if (!rows.readable) return "its entries cannot be read: nobody knows whether some are protected";
  if (rows.guarded == 0 && rows.damaged == 0) return "";
  return fmt::format(
      "it holds {} entries that are immutable or locked, and {} damaged ones of which nobody "
      "knows",
      rows.guarded, rows.damaged);
}

Result dry_run(const std::string& database, const JournalApplyOptions& options,
               const std::string& content) {
  ScratchCopy copy;
  const cr_status_t status = copy.make(database);
  if (status != CR_STATUS_OK) return {status, "the database cannot be copied to try this"};
  return replay(copy.file(), options, content);
}

// The lock keeps ingests and retention locks away between the examination and the replay.
Result apply_locked(const std::string& database, const JournalApplyOptions& options,
                    const std::string& content) {
  DirLock lock;
  const cr_status_t status = lock.lock(getdirname(database));
  if (status != CR_STATUS_OK) return {status, "its directory cannot be locked"};
  const std::string against = options.force_locked ? "" : objection(database);
  if (!against.empty()) {
    return {CR_STATUS_IMMUTABLE, "nothing applied: " + against + "; --force-locked applies it"};
  }
  return options.dry_run ? dry_run(database, options, content) : replay(database, options, content);
}

void print_result(const Console& console, const JournalApplyOptions& options,
                  const Result& result) {
  if (console.json) {
    nlohmann::ordered_json object;
    set_name(object, "database", options.database);
    set_name(object, "journal", options.file);
    object["dry_run"] = options.dry_run;
    object["complete"] = result.exit == kDone;
    object["row_changes"] = result.changes;
    print_line(console, object);
    return;
  }
  console.out << fmt::format("{}: {} {} row changes by {}{}\n", printable(options.database),
                             options.dry_run ? "would take" : "took", result.changes,
                             printable(options.file), result.exit == kDone ? "" : ", in part");
}

}  // namespace

int journal_apply(const Console& console, const JournalApplyOptions& options) {
  std::string content;
  std::string why;
  const cr_status_t status = read_journal(options.file, &content, &why);
  if (status != CR_STATUS_OK) {
    report(console, options.file, status, why);
    return kFailed;
  }
  std::error_code failure;
  const std::string database = std::filesystem::canonical(options.database, failure).string();
  if (failure) {
    report(console, options.database, CR_STATUS_NOT_FOUND, "there is no such database");
    return kFailed;
  }
  const Result result = apply_locked(database, options, content);
  if (!result.text.empty()) report(console, options.database, result.status, result.text);
  if (result.exit != kFailed) print_result(console, options, result);
  return result.exit;
}

}  // namespace cli
