#include "cli/rm.h"

#include <fmt/format.h>

#include <nlohmann/json.hpp>
#include <ostream>

#include "cli/dir_lock.h"
#include "cli/dsinfo.h"
#include "cli/entry.h"
#include "cli/json.h"
#include "cli/removal.h"

namespace cli {
namespace {

// What was refused before anything was touched is asked again under the lock.
Refusal remove_locked(const CatalogPath& path, const Removal& removal) {
  DsInfoRun run;
  cr_status_t status = run.open(path.root, *path.dsid());
  if (status != CR_STATUS_OK) {
    return {status, "not removed: the counters of its data store cannot be used"};
  }
  IngestOutcome outcome;
  Refusal refusal;
  {
    DirLock lock;
    status = lock.lock(removal.guard().full());
    if (status != CR_STATUS_OK) return {status, "not removed: its directory cannot be locked"};
    refusal = removal.refusal();
    if (refusal.text.empty()) {
      status = removal.apply(&outcome);
      if (status != CR_STATUS_OK) refusal = {status, "not removed"};
    }
  }
  if (refusal.text.empty()) {
    run.add(outcome.delta);
    if (outcome.recount) run.distrust();
  }
  const cr_status_t closed = run.close();
  if (closed != CR_STATUS_OK && refusal.text.empty()) {
    return {closed, "removed, but the data store's counters could not be written"};
  }
  return refusal;
}

void print_removed(const Console& console, const CatalogPath& path, const RmOptions& options) {
  if (!console.json) {
    console.out << "removed "
                << (options.damaged_row ? fmt::format("row {} of ", *options.damaged_row) : "")
                << printable(path.inner()) << '\n';
    return;
  }
  nlohmann::ordered_json object;
  set_name(object, "removed", path.inner());
  if (options.damaged_row) object["rowid"] = *options.damaged_row;
  print_line(console, object);
}

}  // namespace

int rm(const Console& console, const RmOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path || path->components.empty()) return report_bad_path(console, options.path);
  const auto removal = options.damaged_row ? removal_of_damaged_row(*path, *options.damaged_row)
                                           : removal_of_entry(*path, names_directory(options.path));
  Refusal refusal = removal->refusal();
  if (refusal.text.empty()) refusal = remove_locked(*path, *removal);
  if (refusal.text.empty()) {
    print_removed(console, *path, options);
    return kDone;
  }
  report(console, path->full(), refusal.status, refusal.text);
  return kFailed;
}

}  // namespace cli
