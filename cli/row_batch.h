// The changes to the rows of one catalog directory.
#pragma once

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "cli/ingest_dir.h"
#include "cli/source_file.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"

namespace cli {

// A catalog directory as a whole cannot be worked on.
struct DirectoryError {
  cr_status_t status;
  std::string text;
};

// One entry could not be stored. Everything of the batch is to be done again without it.
struct EntryError {
  std::string name;
  cr_status_t status;
};

// Opens the directory's database when there is one; takes the empty leftover of a crash away and
// mends what a crash left unfinished. Under the directory's lock. Throws DirectoryError.
void prepare_database(SQLitePODB& db, IngestOutcome* outcome);

// One transaction, begun with the first change: a batch that changes nothing writes nothing.
// Destroyed uncommitted, it rolls back. Operations throw DirectoryError and EntryError.
class RowBatch {
 public:
  RowBatch(const IngestJob& job, SQLitePODB& db) : job_(job), db_(db) {}
  RowBatch(const RowBatch&) = delete;
  RowBatch& operator=(const RowBatch&) = delete;
  ~RowBatch();

  // Adds or replaces the row of this file, unless it is stored already.
  void store(const std::string& name, const SourceFile& file);

  // Deletes all rows but those of `kept`, which is in byte order.
  void remove_others(const std::vector<std::string>& kept);

  // What was done; count there what was not. Only what is committed counts.
  IngestOutcome& outcome() { return outcome_; }
  void commit();

 private:
  enum class Stored { absent, readable, damaged };

  std::string path_of(const std::string& name) const;
  Stored load(const std::string& name, FilePO* stored);
  bool is_same(const FilePO& stored, const FilePO& incoming) const;
  void refuse_protected(const std::string& name);
  void remove(const std::string& name);
  void update(const std::string& name, FilePO* entry);
  void begin();

  const IngestJob& job_;
  SQLitePODB& db_;
  bool begun_ = false;
  IngestOutcome outcome_;
};

}  // namespace cli
