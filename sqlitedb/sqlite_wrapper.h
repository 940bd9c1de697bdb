// The SQLite access layer: the exception of corruption, the connection and the replay of journals.
#pragma once

#include <string>

#include "base/export.h"
#include "host/status.h"

struct sqlite3;

namespace sqlitedb {

// Thrown for corruption, and for nothing else, by the operations that say so. A class of its own:
// it derives from nothing, so handlers catch it by its own type.
class POCATALOG_API db_exception {
 public:
  // SQLite's text for `code`, with a given status (stored as it is) or the mapped one.
  db_exception(int code, cr_status_t given);
  explicit db_exception(int code);
  // A text of the caller's, which is copied, with the mapped status.
  db_exception(int code, const char* text);

  db_exception(const db_exception&) = default;
  db_exception& operator=(const db_exception&) = default;
  virtual ~db_exception();

  // The message; it lives as long as the object.
  virtual const char* what() const;
  // The SQLite result code, extended codes included.
  int errcode() const;
  cr_status_t cr_status() const;

  // The status of an SQLite result code: 0 for OK, ROW and DONE, CR_STATUS_BUSY,
  // CR_STATUS_IO_ERROR, CR_STATUS_CORRUPT (a file moved away under its connection included),
  // otherwise CR_STATUS_FAILED.
  static cr_status_t dberr_to_crstatus(int code);

 private:
  int errcode_;
  std::string message;
  cr_status_t status;
};

// One connection to one database file. Failures come back as statuses; corruption alone is thrown,
// by the operations that say so. A subclass supplies the schema and takes the rows.
//
// A file may come from elsewhere: its views cannot be read (CR_STATUS_FAILED), its triggers do not
// fire, and functions in its definitions are limited to harmless ones. What is no regular file
// cannot be opened.
//
// The object owns its connection and closes it. It holds no lock and is used by one thread at a
// time; connections to one file meet through SQLite's locks, a busy timeout of 10 seconds and the
// retries of the transaction operations. A commit that is acknowledged outlives a power failure.
//
// Operations that need a connection answer CR_STATUS_NOT_FOUND, after one log line, while there is
// none, unless they say otherwise. Failing statements are logged once with their SQL, cut at 1024
// bytes.
class POCATALOG_API sqlite3_wrapper {
 public:
  // Keeps the path; opens nothing.
  explicit sqlite3_wrapper(const std::string& file);
  sqlite3_wrapper(const sqlite3_wrapper&) = delete;
  sqlite3_wrapper& operator=(const sqlite3_wrapper&) = delete;
  // Closes as close_db(3) does; an open transaction is rolled back by SQLite.
  virtual ~sqlite3_wrapper();

  // Called by init_db on the opened file, to lay out the schema. A status other than 0 makes
  // init_db close and delete the file. The base does nothing.
  virtual cr_status_t on_db_createtable();

  // Called by exec for each row when `arg` was given. A result other than 0 aborts the statement.
  // What it throws leaves exec, after SQLite's frames are gone. The base answers -1.
  virtual int on_db_callback(void* arg, int ncols, char** values, char** names);

  // Runs one or more statements. Rows go to on_db_callback when `arg` is not null and are dropped
  // otherwise. SQLite reads up to the first NUL. Returns the mapped status; throws db_exception on
  // corruption.
  virtual cr_status_t exec(const std::string& sql, void* arg);

  // Runs a whole file as one batch; `flag` is not used. A file that cannot be opened counts as
  // empty; one that cannot be read gives CR_STATUS_FAILED. Otherwise as exec.
  virtual cr_status_t exec_file(const std::string& file, bool flag);

  // Creates the file (and its directory, mode 0700), or takes an empty one, and lays out the
  // schema. 0 at once when there is a connection. CR_STATUS_EXISTS for a file with content, and the
  // status of one that cannot be examined: both stay as they are. Any later failure closes and
  // deletes the file, so those who may create one file take turns; db_exception leaves the
  // connection half open and the file in place, for the caller to decide.
  cr_status_t init_db();

  // Opens the file; 0 when it is open already, and what an interrupted init_db left is closed
  // first. SQLite creates a missing file: callers that must not, use checkopen.
  cr_status_t open_db();
  // Closes what is open, changes the path, and opens.
  cr_status_t open_db(const std::string& path);

  // Opens on demand: 0 when there is a connection, CR_STATUS_NOT_FOUND for no file,
  // CR_STATUS_BAD_DATA for an empty one or one that cannot be examined, otherwise as open_db.
  cr_status_t checkopen();

  // Closes, retrying `retries` times, a second apart, while statements keep the connection busy. A
  // connection that stays busy is abandoned, not blocked on: that counts as success. Any other
  // failure leaves the connection as it was.
  cr_status_t close_db(unsigned long retries);

  // Closes and deletes the file, even when closing failed. The status is the deletion's.
  cr_status_t drop_db();

  // Each is tried up to 60 times, a second apart, while the answer is CR_STATUS_BUSY. Corruption
  // comes back as its status. The begin takes the write lock at once, so that two writers meet
  // here.
  cr_status_t begin_transaction();
  cr_status_t commit_transaction();
  cr_status_t rollback_transaction();

  // Runs a pragma until a row equals `expected`; true when one did. The rows seen, that one
  // included, are appended to `result` (may be null) without separators. False without a
  // connection.
  bool run_pragma(const std::string& pragma, const std::string& expected, std::string* result);

  // SQLite's integrity check; when false, `result` tells the problems.
  bool run_integrity_check(std::string& result);

  // The number of rows of a table. CR_STATUS_BAD_ARG when `count` is null, CR_STATUS_FAILED for
  // every other failure, a missing connection and corruption included.
  cr_status_t count_in_table(const std::string& table, unsigned long* count);

  // True between a successful opening and the closing.
  bool is_open() const { return opened; }
  // True while a connection exists, half-open ones included.
  bool has_handle() const { return db != nullptr; }
  // True while SQLite itself has a transaction open: it ends one by its own decision on a full disk
  // or an I/O error.
  bool in_transaction() const;
  // Rows changed by the last statement; 0, after a log line, without a connection.
  int get_changes() const;

 protected:
  // For a database that knows how long its values can be: longer ones, which a damaged or hostile
  // file may claim to hold or make SQLite compute, are refused (CR_STATUS_FAILED).
  sqlite3_wrapper(const std::string& file, int longest);

  // Logs an SQLite failure and returns its mapped status; throws db_exception on corruption.
  cr_status_t on_db_error(int code);

  // Runs statements on the connection, which exists, rows as in exec. Returns SQLite's result code,
  // and its text for it in `error`. Throws what a row hook threw.
  int run_statements(const std::string& sql, void* arg, std::string& error);

  // Logs statements that failed with `code`, as `shown` in the log line, then as on_db_error.
  cr_status_t on_statement_error(int code, const std::string& shown, const std::string& error);

  std::string dbfile;     // path of the database file
  sqlite3* db = nullptr;  // owned
  bool opened = false;    // set only when opening has fully succeeded

 private:
  const int longest_value = -1;  // bytes; -1 for SQLite's own limit

  // What exec hands through SQLite to exec_callback: an exception of a row hook travels in it.
  struct exec_context;

  void forget_handle();
  int prepare_to_commit(char** error);
  cr_status_t run_transaction_statement(const char* operation, const char* sql);
  static int exec_callback(void* context, int ncols, char** values, char** names);
  static int count_callback(void* out, int ncols, char** values, char** names);

  bool durable = false;  // the connection's commits outlive a power failure
};

// Replays journals: files of SQL, one statement on a line and each ending with ";".
//
// A journal is applied as one batch or line by line. Line by line only restores: lines that delete
// or drop are left out, and a line that is not SQL is passed over. There is no transaction around a
// replay unless the caller opened one, and a batch that fails half way has applied its first half
// before the lines are applied: the statements must bear to be applied twice.
//
// A batch also runs a last statement that lacks its ";": where a journal may have been cut short,
// that statement may lack its WHERE as well, and only line by line is it left alone. A journal's
// own transaction may stay open, above all line by line, where a line END; is too short to be run:
// see in_transaction.
//
// A journal comes from elsewhere, so while one is replayed SQLite refuses to attach or detach
// files (VACUUM attaches one), to load extensions and to run pragmas; such a statement fails like
// any other.
class POCATALOG_API SQLiteApplyJournal : public sqlite3_wrapper {
 public:
  using sqlite3_wrapper::sqlite3_wrapper;
  SQLiteApplyJournal(const SQLiteApplyJournal&) = delete;
  SQLiteApplyJournal& operator=(const SQLiteApplyJournal&) = delete;
  ~SQLiteApplyJournal() override;

  // As the base's, but CR_STATUS_BAD_ARG for a syntax error, which is an everyday log line.
  cr_status_t exec(const std::string& sql, void* arg) override;

  // Replays a file. A file that cannot be opened counts as empty; one that cannot be read gives
  // CR_STATUS_FAILED. Otherwise as exec_file_content.
  cr_status_t exec_file(const std::string& file, bool whole_first) override;

  // Replays `content`, the text of `file`: with `whole_first` as one batch, and line by line only
  // when that meets a syntax error; otherwise line by line at once. The lines end at the last ";",
  // where `content` is cut. Returns 0; CR_STATUS_BAD_ARG when there is no ";", or when lines with
  // syntax errors were passed over; or the status of the line that stopped the replay, the lines
  // before it applied. Throws db_exception on corruption.
  cr_status_t exec_file_content(const std::string& file, std::string& content, bool whole_first);

  // Logs statements that failed; CR_STATUS_BAD_ARG for a syntax error, otherwise as the base does.
  cr_status_t on_db_error(int rc, const std::string& sql, const std::string& errtext);

 private:
  cr_status_t exec_lines(const std::string& file, const std::string& content);
};

}  // namespace sqlitedb
