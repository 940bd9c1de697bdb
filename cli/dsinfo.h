// The counters of a data store (ds_info_t), kept in the file ROOT/<dsid>/__dsinfo__. docs/dsinfo.md
// describes the file.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "host/po_record.h"
#include "host/status.h"
#include "refhost/fd_internal.h"

namespace cli {

// Names beside the counters' own file, in the directory of the data store.
inline constexpr const char* kDsInfoFile = "__dsinfo__";
inline constexpr const char* kDsInfoLockFile = "__dsinfo__.lock";

// What the file says. `open_runs` is 0 while nobody changes the data store.
struct DsInfo {
  ds_info_t counters{};
  std::uint64_t open_runs = 0;
};

std::string print_dsinfo(DsInfo info);
bool parse_dsinfo(const std::string& text, DsInfo* info);

// The directory ROOT/<dsid>.
std::string data_store_directory(const std::string& root, unsigned int dsid);

// CR_STATUS_NOT_FOUND when there are no counters, CR_STATUS_BAD_RECORD for a file in another form.
cr_status_t read_dsinfo(const std::string& root, unsigned int dsid, DsInfo* info);

// Counts what the data store holds: every "__dirpo__" and every row below its directory, and the
// sizes that readable rows record. What cannot be read is left out; the first such directory and
// its status are the result.
struct CountResult {
  cr_status_t status = CR_STATUS_OK;
  std::string unread;
};
CountResult count_data_store(const std::string& root, unsigned int dsid, ds_info_t* counters);

// Adds modulo 2^64, as the library counts: a delta below 0 wraps.
void add_counters(ds_info_t* sum, const ds_info_t& delta);

// One run of a program that changes a data store: it tells the counters' file that it is at work,
// and adds what it changed when it closes. Runs of several processes add up. A run that dies, or is
// destroyed without being closed, stays on the file's account of open runs; the next run that finds
// itself alone with such a file counts the data store anew.
class DsInfoRun {
 public:
  // The directory ROOT/<dsid> exists. Waits while another run counts, until `stop` is set: then the
  // status is CR_STATUS_BUSY.
  cr_status_t open(const std::string& root, unsigned int dsid,
                   const std::atomic<bool>* stop = nullptr);

  // Whether opening had to count what was there, because the counters could not be trusted or were
  // missing from a data store that is not new; and what came of that. While not everything can be
  // counted, every first run tries.
  bool recounted() const { return recounted_; }
  const CountResult& count_result() const { return count_result_; }

  void add(const ds_info_t& delta) { add_counters(&delta_, delta); }

  // The deltas do not tell all that was changed. Closing counts anew when no other run is at work
  // and nobody asks to stop; else the run stays on the account, so that a later one does.
  void distrust() { trusted_ = false; }

  // Once. A failure leaves the run on the account.
  cr_status_t close();

 private:
  cr_status_t join(bool alone);
  void recount(bool unknown, DsInfo* info);
  cr_status_t write(const DsInfo& info) const;

  std::string root_;
  unsigned int dsid_ = 0;
  const std::atomic<bool>* stop_ = nullptr;
  refhost::Fd lock_;  // held shared for the life of the run
  bool recounted_ = false;
  CountResult count_result_;
  ds_info_t delta_{};
  bool trusted_ = true;
};

}  // namespace cli
