// One prepared statement of the store of DCID lists.
#pragma once

#include <sqlite3.h>

#include <memory>
#include <string>

#include "host/status.h"
#include "uldb/sqlite_uldb.h"
#include "uldb/udcid_record.h"

// What a statement does and how its failures read.
struct StatementTexts {
  const char* operation;
  const char* sql;
  const char* prepare;  // "failed to <this>[SQL]"
  const char* step;
  bool writes;
};

struct Blob {
  const unsigned char* bytes;
  unsigned int size;
};

// Makes the record of a binary form, or leaves `record` null.
cr_status_t decode(const Blob& blob, std::unique_ptr<UDCIDRecord>& record);

struct FinalizeStatement {
  void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
};
using StatementPtr = std::unique_ptr<sqlite3_stmt, FinalizeStatement>;

// Prepared statements for single rows, from one call to the next. Null while in use, so that a
// nested call prepares its own. Finalized before the connection closes.
struct SQLiteULDB::KeptStatements {
  StatementPtr read;
  StatementPtr owner;
  StatementPtr write;
  StatementPtr deletion;
};

// Finalized on every way out, unless it is kept. Failures are logged and mapped here. What is bound
// is not copied: it outlives the statement's last step. Texts and blobs of a row live until the
// next step.
class Statement {
 public:
  // `path` and `texts` outlive the statement. One that is `kept` is taken from there while it is in
  // use; the connection must not close meanwhile.
  Statement(sqlite3* connection, const std::string& path, const StatementTexts& texts,
            StatementPtr* kept = nullptr);

  cr_status_t prepare();
  // Without the connection's settings: the statement whose row is being read has made them.
  cr_status_t prepare_beside();
  cr_status_t bind_poid(const char* poid);    // parameter 1
  cr_status_t bind_blob(const Blob& stored);  // parameter 2
  cr_status_t bind_choice(bool choice);       // parameter 2

  // 0 for a row, CR_STATUS_NOT_FOUND when there is no further one.
  cr_status_t next_row();
  // Runs a statement that has no rows.
  cr_status_t finish();
  // Back to before the first row; lets go of its texts.
  void rewind() { sqlite3_reset(statement_.get()); }

  // Null unless the column holds a text without NUL bytes in it.
  const char* text(int column) const;
  Blob blob(int column) const;

  // Keeps a statement that has not failed, if it is to be kept, and finalizes any other. Returns
  // the code that says something about the database: that of a failed preparation or step,
  // otherwise SQLITE_OK.
  int release();
  // Takes over what another statement's code says about the database.
  void judge(int code) { judged_ = code; }

 private:
  cr_status_t failed(int rc, const char* what, const char* subject) const;
  cr_status_t failed_step(int rc);

  sqlite3* const db_;
  const std::string& path_;
  const StatementTexts& texts_;
  StatementPtr* const kept_;
  StatementPtr statement_;
  int judged_ = SQLITE_OK;
};

// A list's checksum does not cover whose list it is: a damaged index leads to a sound list of
// another content. So a row that the index found is asked for its own POID, by this statement. It
// always names `udcids`: SQLite may answer from an index alone that has every column named, and the
// index would vouch for itself.
constexpr StatementTexts owner_texts(const char* operation) {
  return {operation,
          "SELECT own.poid, CASE WHEN ?2 THEN own.udcids END FROM utable AS own "
          "WHERE own.rowid = (SELECT led.rowid FROM utable AS led WHERE led.poid = ?1)",
          "prepare SQL", "step ", false};
}

// Runs it. CR_STATUS_BAD_DATA, after a log line, when index and row contradict each other, or the
// row does not hold the `list` (may be null) that a walk met under this POID: a damaged index may
// have two rows under one. CR_STATUS_NOT_FOUND when the index does not know the POID.
cr_status_t check_owner(Statement& owner, const char* poid, const Blob* list);
