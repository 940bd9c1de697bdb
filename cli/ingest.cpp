#include "cli/ingest.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <exception>
#include <filesystem>
#include <mutex>
#include <ostream>
#include <system_error>
#include <thread>
#include <vector>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/dir_lock.h"
#include "cli/dir_record.h"
#include "cli/dsinfo.h"
#include "cli/ingest_dir.h"
#include "cli/ingest_report.h"
#include "cli/progress.h"
#include "cli/stop_signal.h"
#include "cli/tree_walk.h"
#include "host/files.h"

namespace cli {
namespace {

bool is_catalog_name(const std::string& name) {
  return !name.empty() && name != "." && name != ".." && name.find('/') == std::string::npos &&
         !is_reserved_name(name) && name != kDsInfoLockFile;
}

bool find_id(const std::string& path, FileId* id) {
  struct stat found {};
  if (wa_stat(path.c_str(), &found) != CR_STATUS_OK) return false;
  *id = id_of(found);
  return true;
}

unsigned int threads_of(const IngestOptions& options) {
  if (options.threads != 0) return options.threads;
  return std::clamp(std::thread::hardware_concurrency(), 1U, kMostThreads);
}

// Threads that are waited for.
class Threads {
 public:
  Threads() = default;
  Threads(const Threads&) = delete;
  Threads& operator=(const Threads&) = delete;
  ~Threads() {
    for (std::thread& thread : threads_) thread.join();
  }

  template <typename Work>
  void start(Work work) {
    threads_.emplace_back(work);
  }

 private:
  std::vector<std::thread> threads_;
};

// One run: from the examined options to the summary.
class Ingest {
 public:
  Ingest(const Console& console, const IngestOptions& options)
      : console_(console),
        options_(options),
        progress_(console),
        databases_(absolute_root(options.root)) {
    job_.root = absolute_root(options.root);
    job_.dsid = options.dsid;
    job_.delete_missing = options.delete_missing;
    job_.with_content = options.with_content;
    job_.stop = &stop_.requested();
    job_.progress = &progress_;
    job_.databases = &databases_;
  }

  int run();

 private:
  cr_status_t find_source();
  int make_catalog();
  bool source_lies_in_catalog() const;
  int update_data_store();
  void report_count() const;
  cr_status_t make_client_directory();
  void walk();
  void work(TreeWalk& tree) noexcept;
  void take(IngestOutcome&& outcome);
  int finish();
  int failed(const std::string& path, cr_status_t status, const std::string& text) const;

  std::string data_store() const { return data_store_directory(job_.root, job_.dsid); }
  std::string client_directory() const { return data_store() + "/" + options_.client; }

  const Console& console_;
  const IngestOptions& options_;
  const std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
  const StopSignal stop_;
  Progress progress_;
  DatabasePool databases_;
  IngestJob job_;
  DirectoryTask top_;
  bool stopped_ = false;

  std::mutex taking_;  // guards what follows, and the printing of problems
  DsInfoRun account_;
  IngestCounts counts_;
};

int Ingest::failed(const std::string& path, cr_status_t status, const std::string& text) const {
  report(console_, path, status, text);
  return kFailed;
}

int Ingest::run() {
  const cr_status_t found = find_source();
  if (found != CR_STATUS_OK) return failed(options_.source, found, "is no directory to read");
  const int made = make_catalog();
  return made != kDone ? made : update_data_store();
}

// The user named SOURCE, so a symbolic link there is followed; none is further down.
cr_status_t Ingest::find_source() {
  std::error_code failure;
  top_.source = std::filesystem::canonical(options_.source, failure).string();
  errno = failure.value();
  if (failure || !find_id(top_.source, &top_.id)) return status_of_errno("stat");
  return wa_isdir(top_.source.c_str()) ? CR_STATUS_OK : CR_STATUS_NOT_FOUND;
}

int Ingest::make_catalog() {
  if (source_lies_in_catalog()) {
    failed(options_.source, CR_STATUS_OK, "lies in the catalog");
    return kUsage;
  }
  const cr_status_t status = keep_errno_of(wa_createtree(data_store().c_str(), 0700));
  if (status != CR_STATUS_OK) return failed(data_store(), status, "cannot be made");
  for (const std::string& directory : {job_.root, data_store()}) {
    FileId id{};
    if (!find_id(directory, &id)) {
      return failed(directory, status_of_errno("stat"), "cannot be examined");
    }
    job_.catalog.push_back(id);
  }
  top_.catalog = client_directory() + "/" + options_.policy;
  return kDone;
}

// By identity, not by name: the root may be mounted, or linked to, in several places.
bool Ingest::source_lies_in_catalog() const {
  FileId root{};
  if (!find_id(job_.root, &root)) return false;
  FileId above{};
  for (std::filesystem::path path = top_.source;; path = path.parent_path()) {
    if (find_id(path.string(), &above) && above == root) return true;
    if (path == path.root_path()) return false;
  }
}

int Ingest::update_data_store() {
  const std::string directory = data_store();
  cr_status_t status = account_.open(job_.root, job_.dsid, job_.stop);
  if (status == CR_STATUS_BUSY && *job_.stop) {
    return failed(directory, CR_STATUS_OK, "stopped by a signal; nothing was done");
  }
  if (status != CR_STATUS_OK) return failed(directory, status, "its counters cannot be used");
  if (account_.recounted()) report_count();
  status = make_client_directory();
  if (status == CR_STATUS_OK) walk();
  const cr_status_t closed = account_.close();
  progress_.pause();
  if (status != CR_STATUS_OK) return failed(client_directory(), status, "cannot be made");
  const int done = finish();
  if (closed == CR_STATUS_OK) return done;
  return failed(directory, closed, "its counters cannot be written; the next run counts anew");
}

void Ingest::report_count() const {
  const CountResult& count = account_.count_result();
  if (count.status == CR_STATUS_OK) {
    report(console_, data_store(), CR_STATUS_OK,
           "the counters were not to be trusted, and were counted anew");
  } else {
    report(console_, count.unread, count.status,
           "cannot be counted: the counters of the data store are not to be trusted, and the next "
           "run counts anew");
  }
}

cr_status_t Ingest::make_client_directory() {
  DirLock lock;
  cr_status_t status = lock.lock_or_create(data_store(), client_directory());
  IngestOutcome outcome;
  if (status == CR_STATUS_OK) status = store_default_directory(job_, client_directory(), &outcome);
  take(std::move(outcome));
  return status;
}

void Ingest::walk() {
  TreeWalk tree(top_, *job_.stop);
  {
    Threads others;
    try {
      for (unsigned int i = 1; i < threads_of(options_); ++i) others.start([&] { work(tree); });
    } catch (const std::system_error&) {
      // The machine gives no more: those that are there do the work.
    }
    work(tree);
  }
  tree.rethrow();
  stopped_ = *job_.stop;
}

// What it throws ends the run: the counters may lack what was committed, so they are left to be
// counted anew.
void Ingest::work(TreeWalk& tree) noexcept {
  try {
    FileReader reader(*job_.stop, progress_);
    DirectoryTask task;
    while (tree.next(&task)) {
      DirectoryResult result = ingest_directory(job_, task, reader);
      take(std::move(result.outcome));
      tree.enter(task, std::move(result.below));
    }
  } catch (...) {
    tree.fail(std::current_exception());
  }
}

void Ingest::take(IngestOutcome&& outcome) {
  const std::lock_guard<std::mutex> lock(taking_);
  if (!outcome.problems.empty()) {
    const auto pause = progress_.pause();
    report_problems(console_, outcome.problems);
  }
  counts_.add(outcome.counts);
  account_.add(outcome.delta);
  if (outcome.recount) account_.distrust();
}

int Ingest::finish() {
  const std::chrono::duration<double> spent = std::chrono::steady_clock::now() - start_;
  print_summary(console_, counts_, spent.count());
  if (stopped_) {
    return failed(top_.source, CR_STATUS_OK, "stopped by a signal; the rest was not looked at");
  }
  return counts_.not_done != 0 ? kIncomplete : kDone;
}

}  // namespace

int ingest(const Console& console, const IngestOptions& options) {
  for (const std::string& name : {options.client, options.policy}) {
    if (is_catalog_name(name)) continue;
    report(console, name, CR_STATUS_OK, "cannot be the name of a directory");
    return kUsage;
  }
  return Ingest(console, options).run();
}

}  // namespace cli
