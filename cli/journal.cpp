#include "cli/journal.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cerrno>
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

// The statement that an administrator looks for; empty for a whole batch.
std::string shown_statement(const std::string& sql) {
  constexpr std::size_t kLongest = 200;
  const std::string line = sql.substr(0, sql.find_last_not_of('\n') + 1);
  if (line.find('\n') != std::string::npos) return "";
  return printable(line.substr(0, kLongest)) + (line.size() > kLongest ? "...: " : ": ");
}

// Remembers what failed: nobody is to apply a journal once more to find that out.
class Replay : public sqlitedb::SQLiteApplyJournal {
 public:
  using SQLiteApplyJournal::SQLiteApplyJournal;
  Replay(const Replay&) = delete;
  Replay& operator=(const Replay&) = delete;
  ~Replay() override = default;

  cr_status_t exec(const std::string& sql, void* arg) override {
    const cr_status_t status = SQLiteApplyJournal::exec(sql, arg);
    if (status != CR_STATUS_OK) failure_ = shown_statement(sql) + printable(sqlite3_errmsg(db));
    return status;
  }

  std::int64_t changes() const { return sqlite3_total_changes64(db); }
  // "STATEMENT: what SQLite says", of the last one that failed; empty when none did.
  const std::string& failure() const { return failure_; }

 private:
  std::string failure_;
};

// A DELETE that lost its WHERE is still a statement to SQLite, and a batch would run it. The line
// pass leaves out what has no end.
bool cut_short(const std::string& content) {
  const bool blank = content.find_first_not_of(" \t\r\n") == std::string::npos;
  return !blank && sqlite3_complete(content.c_str()) == 0;
}

cr_status_t read_journal(const JournalApplyOptions& options, std::string* content,
                         std::string* why) {
  *why = "the journal cannot be read";
  const cr_status_t status = wa_readfile(options.file.c_str(), content);
  if (status != CR_STATUS_OK) return status;
  // SQLite would take a NUL for the end of the journal.
  *why = "the journal holds a NUL byte";
  if (content->find('\0') != std::string::npos) return CR_STATUS_BAD_DATA;
  *why =
      "nothing applied: the journal's last statement does not end with ';', so it may be cut "
      "short; --line-by-line leaves it out";
  return options.line_by_line || !cut_short(*content) ? CR_STATUS_OK : CR_STATUS_BAD_DATA;
}

Result result_of(cr_status_t status, const Replay& journal) {
  const std::int64_t changes = journal.changes();
  if (status == CR_STATUS_OK) return {status, "", kDone, changes};
  if (status != CR_STATUS_BAD_ARG) {
    return {status,
            "stopped at a statement that failed, those before it are applied: " + journal.failure(),
            kFailed, changes};
  }
  const std::string& failure = journal.failure();
  return {status,
          failure.empty() ? "the journal holds no ';', so it has no statements"
                          : "lines that are no SQL were passed over, the last: " + failure,
          kIncomplete, changes};
}

Result replay(const std::string& database, const JournalApplyOptions& options,
              std::string content) {
  Replay journal(database);
  try {
    cr_status_t status = journal.checkopen();
    if (status != CR_STATUS_OK) return {status, "the database cannot be opened"};
    status = journal.exec_file_content(options.file, content, !options.line_by_line);
    if (!journal.in_transaction()) return result_of(status, journal);
  } catch (const sqlitedb::db_exception& damage) {
    return {damage.cr_status(), std::string("stopped: ") + damage.what()};
  }
  const cr_status_t undone = journal.rollback_transaction();
  return {undone, "the journal left a transaction open: what came after its BEGIN is rolled back"};
}

// Why the journal is not for this database as it is; no text when nothing stands against it.
Result objection(const std::string& database) {
  const ProtectedRows rows = find_protected_rows(database);
  if (rows.status != CR_STATUS_OK) {
    return {rows.status,
            "nothing applied: its entries cannot be read, and nobody knows whether some are "
            "protected; --force-locked applies it"};
  }
  if (rows.guarded == 0 && rows.damaged == 0) return {};
  return {CR_STATUS_IMMUTABLE,
          fmt::format("nothing applied: it holds {} entries that are immutable or locked, and {} "
                      "damaged ones of which nobody knows; --force-locked applies it",
                      rows.guarded, rows.damaged)};
}

Result dry_run(const std::string& database, const JournalApplyOptions& options,
               const std::string& content) {
  ScratchCopy copy;
  const cr_status_t status = copy.make(database);
  if (status != CR_STATUS_OK) return {status, "the database cannot be copied to try this"};
  return replay(copy.file(), options, content);
}

// Fills in the database's path without symbolic links, where its journal lies, too.
Result find_database(const std::string& name, std::string* path) {
  std::error_code failure;
  *path = std::filesystem::canonical(name, failure).string();
  if (failure) {
    errno = failure.value();
    const cr_status_t status = status_of_errno("canonical");
    const bool absent = status == CR_STATUS_NOT_FOUND;
    return {status, absent ? "there is no such database" : "the database cannot be reached"};
  }
  if (std::filesystem::is_regular_file(*path, failure)) return {};
  return {CR_STATUS_BAD_ARG, "is no file, so no database"};
}

// The lock keeps ingests and retention locks away between the examination and the replay.
Result apply_locked(const std::string& database, const JournalApplyOptions& options,
                    const std::string& content) {
  DirLock lock;
  const cr_status_t status = lock.lock(getdirname(database));
  if (status != CR_STATUS_OK) return {status, "its directory cannot be locked"};
  Result against = options.force_locked ? Result{} : objection(database);
  if (!against.text.empty()) return against;
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
  const cr_status_t status = read_journal(options, &content, &why);
  if (status != CR_STATUS_OK) {
    report(console, options.file, status, why);
    return kFailed;
  }
  std::string database;
  const Result missing = find_database(options.database, &database);
  if (!missing.text.empty()) {
    report(console, options.database, missing.status, missing.text);
    return kFailed;
  }
  const Result result = apply_locked(database, options, content);
  if (!result.text.empty()) report(console, options.database, result.status, result.text);
  if (result.exit != kFailed) print_result(console, options, result);
  return result.exit;
}

}  // namespace cli
