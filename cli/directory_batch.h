// Changing the rows of a catalog directory, from the state in which a crash may have left it.
#pragma once

#include <functional>

#include "cli/batch_errors.h"
#include "cli/row_batch.h"

namespace cli {

// Under the directory's lock: takes the empty leftovers of a crash away, mends what it left
// unfinished, lets `work` change the rows in one transaction, and commits when that returns true.
// What was committed is added to `outcome`. When the lists of containers get lost meanwhile, all of
// that is done again. Throws DirectoryError, and what `work` throws.
void run_batch(const IngestJob& job, SQLitePODB& db, const std::function<bool(RowBatch&)>& work,
               IngestOutcome* outcome);

}  // namespace cli
