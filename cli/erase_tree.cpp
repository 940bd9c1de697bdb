#include "cli/erase_tree.h"

#include <algorithm>

#include "cli/dir_list.h"
#include "cli/dir_lock.h"
#include "cli/dir_record.h"
#include "cli/directory_batch.h"
#include "host/status.h"

namespace cli {
namespace {

void erase_rows(const IngestJob& job, const std::string& directory, IngestOutcome* outcome) {
  const LentDatabase db = job.databases->lend(directory);
  const auto remove_all = [](RowBatch& batch) {
    batch.remove_others({});
    return true;
  };
  run_batch(job, *db, remove_all, outcome);
}

// Its subdirectories are gone, unless something there was kept.
void erase_directory(const IngestJob& job, const std::string& directory, IngestOutcome* outcome) {
  DirLock lock(job.stop);
  const cr_status_t status = lock.lock(directory);
  if (lock.stopped()) return;
  if (status == CR_STATUS_NOT_FOUND) return;  // another run was faster
  if (status != CR_STATUS_OK) {
    return outcome->not_done({directory, status, "not removed: it cannot be locked"});
  }
  try {
    erase_rows(job, directory, outcome);
    remove_directory(job, directory, outcome);
  } catch (const DirectoryError& error) {
    outcome->not_done({directory, error.status, "not removed: " + error.text});
  } catch (const EntryError& error) {
    outcome->not_done({directory + "/" + error.name, error.status, "the row is not removed"});
  } catch (const Cr_ErrnoException& error) {
    outcome->not_done({directory, error.status(), std::string("not removed: ") + error.what()});
  }
}

}  // namespace

void erase_subdirectories(const IngestJob& job, const std::string& directory,
                          const std::vector<std::string>& kept, IngestOutcome* outcome) {
  DirPager entries(directory);
  while (const DirEntry* entry = entries.next()) {
    if (*job.stop) return;
    if (entry->kind != EntryKind::directory) continue;
    if (std::binary_search(kept.begin(), kept.end(), entry->name)) continue;
    const std::string below = directory + "/" + entry->name;
    erase_subdirectories(job, below, {}, outcome);
    if (!*job.stop) erase_directory(job, below, outcome);
  }
  if (entries.status() == CR_STATUS_OK || entries.status() == CR_STATUS_NOT_FOUND) return;
  outcome->not_done({directory, entries.status(), "the catalog's directory cannot be read"});
}

}  // namespace cli
