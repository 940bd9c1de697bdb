// The ingest of one directory: the unit of work of a run.
#pragma once

#include <atomic>
#include <string>
#include <vector>

#include "cli/database_pool.h"
#include "cli/ingest_result.h"
#include "cli/progress.h"
#include "cli/protection.h"
#include "cli/source_dir.h"
#include "cli/source_file.h"

namespace cli {

// What all directories of a run have in common. For any thread.
struct IngestJob {
  std::string root;  // of the catalog, from absolute_root
  unsigned int dsid = 0;
  bool delete_missing = false;
  bool with_content = true;
  ComplianceClock clock;                    // tells which locks are in force
  std::vector<FileId> catalog;              // directories that are never ingested
  const std::atomic<bool>* stop = nullptr;  // set when the run is to end early
  Progress* progress = nullptr;
  DatabasePool* databases = nullptr;
};

struct DirectoryTask {
  std::string source;
  FileId id;  // of the source when its parent was read
  std::string catalog;
};

struct Subdirectory {
  std::string name;
  FileId id;
};

struct DirectoryResult {
  IngestOutcome outcome;
  std::vector<Subdirectory> below;  // what is to be ingested next, by name in byte order
  bool stopped = false;             // then this directory's rows are as they were
};

// Brings the record and the rows of one catalog directory in line with its source: one transaction,
// under the directory's lock. An entry that cannot be stored is left out, its old row stays. A
// source directory that cannot be read leaves its catalog side alone. With `delete_missing` the
// catalog's subdirectories that the source no longer has go as well, with all that is below them.
// `reader` is the calling thread's.
DirectoryResult ingest_directory(const IngestJob& job, const DirectoryTask& task,
                                 FileReader& reader);

}  // namespace cli
