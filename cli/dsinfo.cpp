#include "cli/dsinfo.h"

#include <fcntl.h>
#include <sys/file.h>

#include <array>
#include <sstream>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/dir_list.h"
#include "cli/dir_lock.h"
#include "host/files.h"

namespace cli {
namespace {

constexpr const char* kHeading = "pocatalog-dsinfo 1";

struct NamedCounter {
  const char* name;
  std::uint64_t* value;
};

std::array<NamedCounter, 4> named_counters(DsInfo& info) {
  return {{{"total_size", &info.counters.total_size},
           {"dir_count", &info.counters.dir_count},
           {"file_count", &info.counters.file_count},
           {"open_runs", &info.open_runs}}};
}

std::string dsinfo_file(const std::string& root, unsigned int dsid) {
  return data_store_directory(root, dsid) + "/" + kDsInfoFile;
}

bool try_flock(int file, int operation) { return flock(file, operation | LOCK_NB) == 0; }

}  // namespace

std::string print_dsinfo(DsInfo info) {
  std::string text = std::string(kHeading) + "\n";
  for (const NamedCounter& counter : named_counters(info)) {
    text += std::string(counter.name) + " " + std::to_string(*counter.value) + "\n";
  }
  return text;
}

bool parse_dsinfo(const std::string& text, DsInfo* info) {
  std::istringstream lines(text);
  std::string line;
  if (!std::getline(lines, line)) return false;
  DsInfo parsed;
  for (const NamedCounter& counter : named_counters(parsed)) lines >> line >> *counter.value;
  if (print_dsinfo(parsed) != text) return false;  // one form only: whatever else is damage
  *info = parsed;
  return true;
}

std::string data_store_directory(const std::string& root, unsigned int dsid) {
  return root + "/" + std::to_string(dsid);
}

cr_status_t read_dsinfo(const std::string& root, unsigned int dsid, DsInfo* info) {
  std::string text;
  const cr_status_t status = keep_errno_of(wa_readfile(dsinfo_file(root, dsid).c_str(), &text));
  if (status != CR_STATUS_OK) return status;
  return parse_dsinfo(text, info) ? CR_STATUS_OK : CR_STATUS_BAD_RECORD;
}

void add_counters(ds_info_t* sum, const ds_info_t& delta) {
  sum->total_size += delta.total_size;
  sum->dir_count += delta.dir_count;
  sum->file_count += delta.file_count;
}

// Runs are joined and left under the lock of the data store's directory. So nobody can come between
// here while the run's own lock is turned from exclusive into shared, which is not atomic.
cr_status_t DsInfoRun::open(const std::string& root, unsigned int dsid,
                            const std::atomic<bool>* stop) {
  root_ = root;
  dsid_ = dsid;
  stop_ = stop;
  DirLock joining(stop);
  const cr_status_t status = joining.lock(data_store_directory(root, dsid));
  if (joining.stopped()) return CR_STATUS_BUSY;
  if (status != CR_STATUS_OK) return status;
  remove_unfinished_writes(data_store_directory(root, dsid));
  const std::string path = data_store_directory(root, dsid) + "/" + kDsInfoLockFile;
  lock_ = refhost::Fd(::open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0600));
  if (!lock_) return status_of_errno("open");
  const bool alone = try_flock(lock_.get(), LOCK_EX);
  const cr_status_t joined = join(alone);
  if (joined == CR_STATUS_OK && try_flock(lock_.get(), LOCK_SH)) return CR_STATUS_OK;
  lock_ = refhost::Fd();
  return joined != CR_STATUS_OK ? joined : CR_STATUS_BUSY;
}

// Nobody else being at work, open runs on the account have died. They stay there when counting
// fails, so that the next run counts again.
cr_status_t DsInfoRun::join(bool alone) {
  DsInfo info;
  const cr_status_t status = read_dsinfo(root_, dsid_, &info);
  const bool unknown = status == CR_STATUS_NOT_FOUND || status == CR_STATUS_BAD_RECORD;
  if (status != CR_STATUS_OK && !(unknown && alone)) return status;
  if (alone && (unknown || info.open_runs != 0)) recount(unknown, &info);
  ++info.open_runs;
  return write(info);
}

void DsInfoRun::recount(bool unknown, DsInfo* info) {
  ds_info_t counted{};
  count_result_ = count_data_store(root_, dsid_, &counted);
  const bool complete = count_result_.status == CR_STATUS_OK;
  recounted_ = !unknown || counted.dir_count != 0 || !complete;
  if (complete || unknown) info->counters = counted;
  if (complete || unknown) info->open_runs = complete ? 0 : 1;
}

cr_status_t DsInfoRun::close() {
  DirLock leaving;
  cr_status_t status = leaving.lock(data_store_directory(root_, dsid_));
  if (status != CR_STATUS_OK) return status;
  DsInfo info;
  status = read_dsinfo(root_, dsid_, &info);
  if (status != CR_STATUS_OK) return status;
  add_counters(&info.counters, delta_);
  // Nobody joins while the lock above is held, so whoever is alone stays so.
  if (trusted_) {
    --info.open_runs;
  } else if (!(stop_ != nullptr && *stop_) && try_flock(lock_.get(), LOCK_EX)) {
    recount(false, &info);
  }
  status = write(info);
  lock_ = refhost::Fd();
  return status;
}

cr_status_t DsInfoRun::write(const DsInfo& info) const {
  const std::string file = dsinfo_file(root_, dsid_);
  return keep_errno_of(wa_writefile(file.c_str(), print_dsinfo(info), false));
}

}  // namespace cli
