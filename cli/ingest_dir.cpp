#include "cli/ingest_dir.h"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "cli/catalog.h"
#include "cli/cause.h"
#include "cli/dir_lock.h"
#include "cli/dir_record.h"
#include "cli/directory_batch.h"
#include "cli/dsinfo.h"
#include "cli/erase_tree.h"
#include "host/status.h"

namespace cli {
namespace {

// A database that refuses more entries than this refuses everything: its disk is full.
constexpr std::size_t kMostRefused = 64;

SkippedKind skipped_kind(mode_t kind) {
  switch (kind) {
    case S_IFLNK:
      return kSkippedLink;
    case S_IFSOCK:
      return kSkippedSocket;
    case S_IFIFO:
      return kSkippedPipe;
    default:
      return kSkippedDevice;
  }
}

class DirectoryIngest {
 public:
  DirectoryIngest(const IngestJob& job, const DirectoryTask& task, FileReader& reader)
      : job_(job), task_(task), reader_(reader) {}

  DirectoryResult run();

 private:
  bool read_source();
  void sort_out(const SourceEntry& entry);
  void sort_out_directory(const std::string& name);
  void update_catalog();
  void update_rows();
  bool try_rows(SQLitePODB& db);
  bool store_all(RowBatch& batch);
  void store(RowBatch& batch, const std::string& name);
  void refuse(const EntryError& error);
  void fail(const std::string& path, cr_status_t status, const std::string& text);

  std::string source_of(const std::string& name) const { return path_below(task_.source, name); }

  const IngestJob& job_;
  const DirectoryTask& task_;
  DirectoryResult result_;
  SourceDirectory source_;
  FileReader& reader_;

  // Names of the source, in byte order.
  std::vector<std::string> files_;
  std::vector<std::string> kept_files_;        // those, and what may be files
  std::vector<std::string> kept_directories_;  // all that are, or may be, directories
  std::vector<std::string> refused_;           // files that could not be stored; not in order
};

void DirectoryIngest::fail(const std::string& path, cr_status_t status, const std::string& text) {
  result_.outcome.not_done({path, status, text});
}

DirectoryResult DirectoryIngest::run() {
  take_cause();  // of what was overcome elsewhere
  ++result_.outcome.counts.directories;
  if (!database_path_fits(task_.catalog)) {
    fail(task_.source, CR_STATUS_BAD_ARG, "skipped: its path would be too long for a database");
  } else if (read_source()) {
    update_catalog();
  }
  return std::move(result_);
}

bool DirectoryIngest::read_source() {
  std::vector<SourceEntry> entries;
  if (!source_.open(task_.source, task_.id) || !source_.read(&entries)) {
    result_.outcome.not_done(os_problem(task_.source, "cannot be read"));
    return false;
  }
  for (const SourceEntry& entry : entries) sort_out(entry);
  return true;
}

void DirectoryIngest::sort_out(const SourceEntry& entry) {
  if (entry.kind == S_IFREG) {
    files_.push_back(entry.name);
    kept_files_.push_back(entry.name);
  } else if (entry.kind == S_IFDIR) {
    sort_out_directory(entry.name);
  } else if (entry.kind == 0) {
    kept_files_.push_back(entry.name);
    kept_directories_.push_back(entry.name);
    fail(source_of(entry.name), CR_STATUS_FAILED, "cannot be examined");
  } else {
    ++result_.outcome.counts.skipped[skipped_kind(entry.kind)];
  }
}

void DirectoryIngest::sort_out_directory(const std::string& name) {
  kept_directories_.push_back(name);
  struct stat found {};
  if (fstatat(source_.fd(), name.c_str(), &found, AT_SYMLINK_NOFOLLOW) != 0) {
    result_.outcome.not_done(os_problem(source_of(name), "cannot be examined"));
    return;
  }
  const FileId id = id_of(found);
  if (std::find(job_.catalog.begin(), job_.catalog.end(), id) != job_.catalog.end()) {
    ++result_.outcome.counts.skipped[kSkippedCatalog];
  } else if (is_reserved_name(name)) {
    fail(source_of(name), CR_STATUS_BAD_ARG, "skipped: a catalog needs this directory's name");
  } else {
    result_.below.push_back({name, id});
  }
}

void DirectoryIngest::update_catalog() {
  {
    DirLock lock(job_.stop);
    const cr_status_t status =
        lock.lock_or_create(data_store_directory(job_.root, job_.dsid), task_.catalog);
    result_.stopped = lock.stopped();
    if (result_.stopped) return;
    if (status != CR_STATUS_OK) return fail(task_.catalog, status, "cannot be made or locked");
    try {
      store_directory(job_, task_.catalog, source_.attributes(), &result_.outcome);
      update_rows();
    } catch (const DirectoryError& error) {
      fail(task_.catalog, error.status, "its files are not done: " + error.text);
    } catch (const Cr_ErrnoException& error) {
      fail(task_.catalog, error.status(), error.what());
    }
  }
  // Without the lock, so that others can work here while a large subtree goes.
  if (job_.delete_missing && !result_.stopped) {
    erase_subdirectories(job_, task_.catalog, kept_directories_, &result_.outcome);
  }
}

void DirectoryIngest::update_rows() {
  const LentDatabase db = job_.databases->lend(task_.catalog);
  while (!try_rows(*db)) {
    if (refused_.size() > kMostRefused) {
      throw DirectoryError{CR_STATUS_FAILED, "too many entries cannot be stored"};
    }
  }
}

// False when an entry was refused, and all others are to be done again without it.
bool DirectoryIngest::try_rows(SQLitePODB& db) {
  try {
    run_batch(
        job_, db, [this](RowBatch& batch) { return store_all(batch); }, &result_.outcome);
    return true;
  } catch (const EntryError& error) {
    refuse(error);
    return false;
  }
}

// False when the run is to stop.
bool DirectoryIngest::store_all(RowBatch& batch) {
  for (const std::string& name : files_) {
    if (!*job_.stop) store(batch, name);
  }
  result_.stopped = *job_.stop;
  if (result_.stopped) return false;
  if (job_.delete_missing) batch.remove_others(kept_files_);
  return true;
}

void DirectoryIngest::store(RowBatch& batch, const std::string& name) {
  if (std::find(refused_.begin(), refused_.end(), name) != refused_.end()) return;
  SourceFile file;
  std::string why;
  const bool with_content = job_.with_content || batch.lacks_list(name);
  if (reader_.read(source_.fd(), name, with_content, &file, &why)) {
    batch.store(name, file);
    job_.progress->entry();
  } else if (!*job_.stop) {
    batch.outcome().not_done({source_of(name), CR_STATUS_FAILED, why});
  }
}

void DirectoryIngest::refuse(const EntryError& error) {
  refused_.push_back(error.name);
  kept_files_.insert(std::lower_bound(kept_files_.begin(), kept_files_.end(), error.name),
                     error.name);  // one that could not be deleted is not tried again
  fail(task_.catalog + "/" + error.name, error.status, "the row could not be stored or removed");
}

}  // namespace

DirectoryResult ingest_directory(const IngestJob& job, const DirectoryTask& task,
                                 FileReader& reader) {
  return DirectoryIngest(job, task, reader).run();
}

}  // namespace cli
