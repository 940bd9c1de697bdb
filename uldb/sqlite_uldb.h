// The SQLite store of DCID lists: "ul.db" in each catalog directory.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include "base/export.h"
#include "host/status.h"
#include "uldb/udcid_record.h"

struct sqlite3;

// The data containers of the contents of one catalog directory, by POID, in the file "ul.db" there.
// docs/uldb.md describes the file.
//
// An existing file is opened by the constructor. Every data or transaction operation creates a
// missing one, reads included, and returns the status when it cannot be opened or created; a file
// without the table, such as an empty one, fails with CR_STATUS_FAILED and is left alone.
//
// A database that SQLite calls corrupt, or that has vanished, is dropped: the file is deleted, the
// operation fails, and the next one starts with an empty database. Any other failure leaves it
// alone. A subclass that can recover a database overrides recover(); the failed operation is then
// tried once more.
//
// Transactions do not nest. A database that is dropped or vanishes in mid-transaction takes the
// transaction's rows with it, and what is put afterwards is stored at once: commit and rollback
// then fail, the transaction still counts as active, and the work is to be done again from a new
// begin. A transaction that SQLite has undone by itself, as after an I/O error, refuses put and del
// with CR_STATUS_FAILED until a begin or a rollback. A connection that was closed in
// mid-transaction is opened again with a new transaction, without the rows from before.
//
// Failures are statuses; nothing is thrown but std::bad_alloc, by the constructor and by the
// operations that return a string. What a callback throws becomes a status.
//
// The object owns its connection and closes it; an open transaction is lost then. It holds no lock
// and is used by one thread at a time. Objects and processes meet through SQLite's locks, a busy
// timeout of 10 seconds, and the 60 attempts, a second apart, of commit and rollback.
class POCATALOG_API SQLiteULDB {
 public:
  // Takes one row. Both arguments live for the call only; the record must not be freed. The
  // callback may read, store and delete rows through the same object; the writes of others wait for
  // the end of a walk. A walk goes on to rows stored behind the current one, but not to one that
  // replaces it. The callback must not close or drop the database.
  using Callback = cr_status_t (*)(const char* poid, UDCIDRecord* record);

  // `dir` is the catalog directory; `options` is kept and not used.
  SQLiteULDB(const std::string& dir, unsigned int options);
  SQLiteULDB(const SQLiteULDB&) = delete;
  SQLiteULDB& operator=(const SQLiteULDB&) = delete;
  virtual ~SQLiteULDB();

  // Takes the write lock at once; CR_STATUS_BUSY when another holds it for 10 seconds.
  virtual cr_status_t begin_transaction();
  // Fails with CR_STATUS_FAILED when SQLite has no transaction open.
  virtual cr_status_t commit_transaction();
  // 0 when no transaction is active, or SQLite has undone it; otherwise as commit.
  virtual cr_status_t rollback_transaction();
  // True between a successful begin and a successful commit or rollback.
  virtual bool is_transaction_active() const;

  // The record of a POID, from `new` and the caller's to delete. Null when there is none and when
  // it could not be read: the host's status cell then holds CR_STATUS_NOT_FOUND in the first case,
  // the failure in the second, and 0 for a record that was found. A record whose checksum is wrong
  // is deleted for good (CR_STATUS_BAD_DATA). Where the index leads to the row of another POID, the
  // failure is CR_STATUS_CORRUPT and nothing is deleted.
  virtual UDCIDRecord* get(const char* poid);

  // Inserts or replaces; `extra` is not used. CR_STATUS_BAD_ARG for a null POID or record,
  // CR_STATUS_NO_MEMORY for a record larger than SQLite stores.
  virtual cr_status_t put(const char* poid, UDCIDRecord* rec, const char* extra);

  // 0 also when there was nothing to delete. CR_STATUS_BAD_ARG for null.
  virtual cr_status_t del(const char* poid);

  // Closes and deletes the file; the status is the deletion's.
  virtual cr_status_t drop_db();

  virtual std::string get_dbfile_path();
  virtual std::string get_db_dir();

  // Calls `cb` for every row, by ascending POID. A callback's status other than 0 ends the walk and
  // is returned. Damaged rows, and those that the index has under another POID than their own, are
  // logged and left out; the status is that of the last row, so CR_STATUS_BAD_DATA tells of a
  // damaged last one only. CR_STATUS_BAD_ARG for a null callback, before any file is made.
  virtual cr_status_t get_all(Callback cb);

  // Calls `cb` with the record of a POID and returns its status; CR_STATUS_NOT_FOUND when get finds
  // none, with the reason in the status cell. CR_STATUS_BAD_ARG as get_all.
  virtual cr_status_t get_one(const char* poid, Callback cb);

  // Opens the file; 0 when it is open already. SQLite creates a missing file, without the table.
  virtual cr_status_t db_open();
  virtual cr_status_t db_close();

  // Creates the directory (mode 0700), the file and its table; 0 when the database is open.
  virtual cr_status_t db_checkinit();

  // Whether a result code of SQLite means that the file is damaged or has vanished. Logs the code.
  virtual bool db_corrupted(int rc);

  // Opens on demand and creates a missing file, whatever `create` says.
  virtual cr_status_t check_db_existence(bool create);

  // Two operation counters, always 0: this class does not count.
  virtual std::pair<std::uint64_t, std::uint64_t> get_ops();
  virtual void clear_ops();

  // The hook of a store that can mend or restore its file: 0 when that was done. It throws nothing.
  // The base has nothing to do it with: CR_STATUS_UNSUPPORTED.
  virtual cr_status_t recover();

  // The number of rows. CR_STATUS_FAILED when it could not be read, CR_STATUS_BAD_ARG for null,
  // before any file is made.
  cr_status_t count(unsigned long* n);

  // Whether the database can still be read from end to end; false also when it is not open. What
  // SQLite's check finds wrong is deliberately not looked at.
  bool db_integrity_OK();

  // The file does not exist. One that could not be looked for counts as existing.
  bool db_missing();

  // What follows a failure of SQLite: drops a damaged database, lets go of a missing one, and tries
  // to recover what is no longer sound. True when the failed operation is worth a second try. No
  // statement may be in use.
  bool db_handle_error(int rc);

  // "ul.db".
  static std::string dbfilename();

 protected:
  // Opens on demand. CR_STATUS_NOT_FOUND when the file is missing; a connection is closed then.
  cr_status_t db_checkopen();

  // Runs a statement whose rows do not matter.
  cr_status_t db_exec(const char* sql);

  const std::string directory;
  const std::uint32_t option;
  const std::string dbfile_path;
  sqlite3* db = nullptr;  // owned; db_close() closes it, with what is prepared on it
  bool transaction_active = false;

 private:
  struct KeptStatements;

  cr_status_t db_open_imp(bool& retry);
  cr_status_t db_exec_imp(const char* sql, bool& retry);
  cr_status_t get_imp(const char* poid, std::unique_ptr<UDCIDRecord>& found, bool& retry);
  cr_status_t put_imp(const char* poid, UDCIDRecord* rec, bool& retry);
  cr_status_t del_imp(const char* poid, bool& retry);
  void log_absent(const char* poid);
  void remove_corrupt(const char* poid);
  cr_status_t end_transaction(const char* verb, const char* sql);
  void log_transaction(const char* verb, cr_status_t status);
  void close_handle();
  bool transaction_undone() const;
  cr_status_t check_transaction(const char* operation) const;
  int run_sql(const char* operation, const char* sql);
  bool recovered();

  const std::unique_ptr<KeptStatements> kept;
  bool begun = false;       // the active transaction, on this connection
  bool recovering = false;  // a recovery that fails on its way does not start another
};
