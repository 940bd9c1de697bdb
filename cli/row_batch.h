// The changes to the rows of one catalog directory.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "cli/container_lists.h"
#include "cli/ingest_dir.h"
#include "cli/list_gaps.h"
#include "cli/source_file.h"
#include "cli/stored_rows.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"

namespace cli {

// One transaction of a directory's rows and their lists of containers, begun with the first change:
// a batch that changes nothing writes nothing. The lists are committed first, so that a crash
// between the two commits leaves differences that the next batch finds as gaps and closes.
// Destroyed uncommitted, it rolls back. Operations throw what stands in cli/batch_errors.h.
class RowBatch {
 public:
  RowBatch(const IngestJob& job, SQLitePODB& db, StoredRows rows, ListGaps gaps)
      : job_(job), db_(db), rows_(std::move(rows)), gaps_(std::move(gaps)), lists_(db.get_dir()) {}
  RowBatch(const RowBatch&) = delete;
  RowBatch& operator=(const RowBatch&) = delete;
  ~RowBatch();

  // Whether the content that the row of this name has lacks its list. To close that gap, `store`
  // needs the file's content even when the run does not.
  bool lacks_list(const std::string& name);

  // Adds or replaces the row of this file, unless it is stored already.
  void store(const std::string& name, const SourceFile& file);

  void remove(const std::string& name);

  // Deletes all rows but those of `kept`, which is in byte order.
  void remove_others(const std::vector<std::string>& kept);

  // What was done; count there what was not. Only what is committed counts.
  IngestOutcome& outcome() { return outcome_; }
  void commit();

  // Whether a damaged row went, so that nobody knows which content may have become unused.
  bool displaced_damage() const { return displaced_damage_; }

 private:
  enum class Stored { absent, readable, damaged };

  std::string path_of(const std::string& name) const;
  FilePO entry_of(const std::string& name) const;
  bool recall(const std::string& name, FilePO* stored) const;
  Stored load(const std::string& name, FilePO* stored);
  Stored compare(const std::string& name, const FilePO& incoming, FilePO* stored, bool* same);
  bool is_same(const FilePO& stored, const FilePO& incoming) const;
  void refuse_protected(const std::string& name);
  void refuse_damaged(const std::string& name);
  void replace_damaged(const std::string& name);
  void update(const std::string& name, FilePO* entry, const Content& content);
  void close_gap(const FilePO& stored, const Content& content);
  void settle_lists();
  void tell_gaps(const POQueue& users);
  void begin();

  const IngestJob& job_;
  SQLitePODB& db_;
  StoredRows rows_;  // without the records of names that were changed
  ListGaps gaps_;
  ContainerLists lists_;
  bool begun_ = false;
  std::uint64_t lists_mended_ = 0;
  std::set<std::string> displaced_;  // POIDs of rows that went
  bool displaced_damage_ = false;
  IngestOutcome outcome_;
};

}  // namespace cli
