#include "cli/check_counters.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>

#include <string>

#include "cli/dir_lock.h"
#include "cli/dsinfo.h"

namespace cli {
namespace {

// What the counters' file says, and whether a run is at work that has not added its share yet.
struct CountersState {
  cr_status_t status = CR_STATUS_OK;
  DsInfo info;
  bool at_work = false;

  std::string text() const { return status == CR_STATUS_OK ? print_dsinfo(info) : ""; }
};

// Every run holds this file's lock. Without the file there has been none.
bool is_run_at_work(const CatalogPath& data_store) {
  const std::string path = data_store.child(kDsInfoLockFile).full();
  const refhost::Fd file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_CLOEXEC));
  return file && flock(file.get(), LOCK_EX | LOCK_NB) != 0;
}

// Runs start and end under the lock of the directory: no one of them sees the moment in which the
// run's own lock is tried here.
CountersState read_state(const CatalogPath& data_store) {
  CountersState state;
  DirLock lock;
  state.status = lock.lock(data_store.full());
  if (state.status != CR_STATUS_OK) return state;
  state.at_work = is_run_at_work(data_store);
  state.status = read_dsinfo(data_store.root, *data_store.dsid(), &state.info);
  return state;
}

struct Difference {
  const char* name;
  std::uint64_t said;
  std::uint64_t counted;
};

std::uint64_t tell_differences(const std::string& file, const DsInfo& info,
                               const ds_info_t& counted, Findings* findings) {
  const ds_info_t& said = info.counters;
  std::uint64_t told = 0;
  for (const Difference& d : {Difference{"total_size", said.total_size, counted.total_size},
                              Difference{"dir_count", said.dir_count, counted.dir_count},
                              Difference{"file_count", said.file_count, counted.file_count}}) {
    if (d.said == d.counted) continue;
    findings->add(file, fmt::format("{} is {}, and {} was counted", d.name, d.said, d.counted));
    ++told;
  }
  return told;
}

std::uint64_t tell(const std::string& file, const CountersState& state, const ds_info_t& counted,
                   Findings* findings) {
  if (state.status == CR_STATUS_BAD_RECORD) {
    findings->add(file, "does not parse: the next ingest counts anew");
    return 1;
  }
  if (state.status == CR_STATUS_NOT_FOUND) {
    if (counted.dir_count == 0 && counted.file_count == 0) return 0;  // a new data store
    findings->add(file, "is missing: the next ingest counts anew");
    return 1;
  }
  if (state.info.open_runs != 0) {
    findings->add(file, "is not complete, a run died: the next ingest counts anew");
    return 1;
  }
  return tell_differences(file, state.info, counted, findings);
}

bool is_readable(cr_status_t status) {
  return status == CR_STATUS_OK || status == CR_STATUS_NOT_FOUND || status == CR_STATUS_BAD_RECORD;
}

}  // namespace

std::uint64_t check_counters(const CatalogPath& data_store, Findings* findings) {
  const std::string file = data_store.child(kDsInfoFile).full();
  const auto skip = [&](cr_status_t status, const std::string& reason) {
    if (is_there(data_store.full())) findings->add_unexamined(file, status, reason);
    return std::uint64_t{0};
  };
  const CountersState before = read_state(data_store);
  if (!is_readable(before.status)) return skip(before.status, "cannot be read");
  if (before.at_work) return skip(CR_STATUS_BUSY, "an ingest is at work");
  ds_info_t counted{};
  const CountResult count = count_data_store(data_store.root, *data_store.dsid(), &counted);
  if (count.status != CR_STATUS_OK) {
    return skip(count.status,
                "cannot be compared: " + printable(count.unread) + " cannot be counted");
  }
  const CountersState after = read_state(data_store);
  if (after.at_work || after.status != before.status || after.text() != before.text()) {
    return skip(CR_STATUS_BUSY, "changed while the data store was counted");
  }
  return tell(file, before, counted, findings);
}

}  // namespace cli
