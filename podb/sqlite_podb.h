// The SQLite store of path objects: "po.db" in each catalog directory.
#pragma once

#include <boost/filesystem/path.hpp>
#include <boost/thread/mutex.hpp>
#include <cstdint>
#include <iosfwd>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/export.h"
#include "podb/podb.h"

// The database of one catalog directory in the file "po.db" there. docs/podb.md describes the file.
//
// Nothing is opened before the first use. Reads answer CR_STATUS_NOT_FOUND when the file cannot be
// opened and never create it; put and the transaction operations create a missing one. An empty
// file is neither opened nor recreated (CR_STATUS_BAD_DATA): an empty leftover of a crash is not a
// database. A damaged row is never turned into an entry: single reads fail with the row's own
// status (-1 for a wrong checksum), listings log it and leave it out.
//
// Every failure is a status: corruption too (CR_STATUS_CORRUPT). Only what the host's record
// functions and the caller's visitors throw passes through, and the database stays usable then.
//
// SQLite ends a transaction by itself on a full disk or an I/O error. Until the caller rolls back,
// begin, writes and commit are refused with CR_STATUS_FAILED, so that no part of a lost batch is
// stored alone.
//
// One object is used by one thread at a time; opening and creating the file is guarded, so that the
// first use may come from two threads at once. Destroying it loses an open transaction.
class POCATALOG_API SQLitePODB : public PODB {
 public:
  // As PODB's.
  SQLitePODB(const std::string& catalog_root, const std::string& directory);
  SQLitePODB(const boost::filesystem::path& catalog_root, const boost::filesystem::path& directory);
  // Literals would fit both of the above.
  SQLitePODB(const char* catalog_root, const char* directory)
      : SQLitePODB(std::string(catalog_root), std::string(directory)) {}
  SQLitePODB(const SQLitePODB&) = delete;
  SQLitePODB& operator=(const SQLitePODB&) = delete;
  ~SQLitePODB() override;

  using PODB::del;
  using PODB::get;

  // False, with the status in the host's status cell, when the database could not be opened or
  // read.
  bool exists(const std::string& basename) override;

  // `flag` is ignored. CR_STATUS_NOT_FOUND when there is no such row or when the database could not
  // be opened. CR_STATUS_CORRUPT where a damaged index leads to the row of another name; `po` is
  // not filled. The status cell gets that, or the status with which the database could not be
  // opened or read, otherwise 0, for a damaged row as well.
  cr_status_t get(const std::string& basename, PO* po, bool flag) override;
  cr_status_t get(const std::string& basename, PO* po) override;

  // CR_STATUS_BAD_ARG for a null object and for an entry without a name. A row whose statement
  // would be longer than 2047 bytes fails and stores nothing. SQLite finds the row to replace by
  // the index of names: by a damaged one it may be that of another name.
  cr_status_t put(PO* po) override;

  // CR_STATUS_NOT_FOUND when nothing was deleted. As with put, a damaged index may lead to the row
  // of another name.
  cr_status_t del(const std::string& basename) override;
  cr_status_t del(const std::vector<std::string>& basenames) override;

  cr_status_t count(unsigned long* n) override;

  // The host's case sensitivity decides: GLOB where file names are case-sensitive, otherwise LIKE
  // with "*" as the only wildcard, at most 2048 bytes (CR_STATUS_FAILED). The pattern goes into the
  // statement as it is: callers double its quotes. A missing database yields 0 and no entry.
  cr_status_t find_by_pattern(const std::string& pattern, POQueue* out,
                              bool case_sensitive) override;
  cr_status_t process_by_pattern(const std::string& pattern, POProcessor* p) override;

  // `where` is raw SQL. Names win when both outputs are given. Damaged rows are left out of `pos`.
  cr_status_t select_basenames(std::vector<std::string>* out, const std::string& where,
                               OrderType order, unsigned long limit) override;
  cr_status_t select(const QueryParams& q, std::vector<std::string>* names, POQueue* pos) override;

  // Batches of 10240 POIDs. A missing file changes nothing and is 0. A failure about `affected` is
  // logged and passed over.
  cr_status_t double_check(std::set<std::string>* affected, POQueue* out,
                           std::set<std::string>* leak_candidates, unsigned long* found) override;

  // The limit is ignored: every later name comes back.
  cr_status_t find_by_cursor(const std::string& cursor, std::vector<std::string>* out,
                             unsigned long limit) override;

  // CR_STATUS_NOT_FOUND when the database could not be opened, CR_STATUS_NOT_EMPTY when it was
  // kept: also when SQLite's integrity check fails. Deletions of an open transaction count, and
  // cannot be rolled back once the file is gone.
  cr_status_t drop_db_if_empty() override;

  // The argument is ignored. An open transaction is lost.
  cr_status_t close_db(unsigned int flags) override;

  // Adds the flags RETENTION_ of podb/retention.h and, for RETENTION_LOCK, locks the entry for
  // `retention` seconds from the compliance clock's now: CR_STATUS_LOCK_LOWERED, nothing changed,
  // when that is before the lock in force or not a time below 2^63. On RETENTION_CLOUD the lock is
  // the creation time plus the period, lower than before or not. CR_STATUS_NO_LOCATION, nothing
  // changed, in a database directly in the catalog's root. The caller brackets the reading and
  // writing with a transaction. Throws Cr_ErrnoException when the host cannot make a record.
  cr_status_t set_retention(const std::string& basename, unsigned long flags,
                            long retention) override;

  // Fills `info`: all zero on failure and for an entry without retention flags; without times on
  // RETENTION_CLOUD. Status and exception of the clock and the record as above.
  cr_status_t get_retention(const std::string& basename, tolvfs_worm_info_t& info) override;

  std::string get_dbfile_path() override;
  std::string get_db_dir() override;

  // SQLite's own check; false, after a log line, also when there is no open connection.
  bool db_integrity_OK() override;

  // Whether a name starts with `backupid`, in which "_" and "%" are wildcards.
  virtual bool backupid_exists(const std::string& backupid);

  // Whether the file holds the table of entries.
  virtual bool potable_exists();

  // Creates the file with its schema and version. What fails leaves no open connection behind.
  virtual cr_status_t init_db();

  // Opens on demand and, when `create` says so, creates a missing file.
  virtual cr_status_t check_db_existence(bool create);

  // Runs SQL on the open connection, CR_STATUS_NOT_FOUND when it is not open. `context` is null, or
  // one of the store's own query contexts.
  virtual cr_status_t exec_sql_impl(const std::string& sql, void* context);
  cr_status_t exec_sql(const std::string& sql, void* context);

  // Opens the file, whether it is there or not; opens it if there is something in it, with
  // CR_STATUS_NOT_FOUND for no file and CR_STATUS_BAD_DATA for an empty one or one that could not
  // be looked at.
  cr_status_t open();
  cr_status_t checkopen();

  // Text properties of the database, while it is open; CR_STATUS_NOT_FOUND when it is not.
  cr_status_t get_property(const std::string& name, std::string* value);
  cr_status_t set_property(const std::string& name, const std::string& value);

  // Reads the schema version; it is 0 until read or created.
  void load_podb_version();
  unsigned int get_podb_version() const { return version; }

  // "po.db".
  static std::string dbfilename();

  // The checksum of a row: Adler-32 of the three texts, one after the other.
  static std::uint32_t calculate_crc(const char* basename, const char* poid, const char* content);

  // Turns "*" into LIKE's wildcard and escapes LIKE's own with a backslash. CR_STATUS_BAD_ARG
  // beyond 2048 bytes. "?" and backslashes are deliberately left alone.
  static cr_status_t PatternEscape(const std::string& pattern, std::string& out);

 protected:
  cr_status_t do_begin_transaction() override;
  cr_status_t do_commit_transaction() override;
  cr_status_t do_rollback_transaction() override;

 private:
  class __attribute__((visibility("hidden"))) po_database;
  struct QueryContext;

  cr_status_t refuse_lost_transaction(const char* operation) const;
  bool transaction_lost() const;
  cr_status_t exec_write(const std::string& sql);
  cr_status_t del_where(const std::string& condition);
  cr_status_t count_query(const std::string& sql, unsigned long* n);
  cr_status_t run_selection(const char* head, const QueryParams& q, std::uint32_t type,
                            void* output);
  void write_podb_version();
  cr_status_t double_check_affected_poset(std::set<std::string>* affected, POQueue* out);
  cr_status_t double_check_partial_affected_poset(std::ostringstream* sql,
                                                  std::set<std::string>* affected, POQueue* out);
  cr_status_t double_check_leak_candidates(std::set<std::string>* leak_candidates);
  cr_status_t double_check_partial_leak_candidates(std::ostringstream* sql,
                                                   std::set<std::string>* leak_candidates);

  const std::string dbfile_path;
  const std::string db_dir;
  std::unique_ptr<po_database> db;
  boost::mutex mutex;  // held while the file is opened or created
  std::uint32_t version = 0;
};

// Creates SQLitePODB objects.
class POCATALOG_API SQLitePODBFactory : public PODBFactory {
 public:
  std::shared_ptr<PODB> create_podb(const std::string& root, const std::string& dir) override;
};
