#include "cli/verify_directory.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <thread>

#include "cli/cause.h"
#include "cli/dir_list.h"
#include "cli/dsinfo.h"
#include "cli/mismatches.h"
#include "cli/row_faults.h"
#include "cli/verify_database.h"
#include "cli/verify_look.h"
#include "host/files.h"
#include "po/dir_po.h"
#include "podb/sqlite_podb.h"
#include "refhost/fd_internal.h"
#include "uldb/sqlite_uldb.h"

namespace cli {
namespace {

// ROOT/<dsid>/<client>/<policy>: directories of images, which have records of their own, start
// here.
constexpr std::size_t kImageDepth = 3;
constexpr off_t kLongestRecord = 65536;

constexpr std::chrono::milliseconds kBetweenAttempts(20);
constexpr int kMostAttempts = 500;  // 10 seconds

// A file with one of the catalog's own names, in a place where it means nothing.
std::string misplaced_fault(const CatalogPath& directory, const std::string& name) {
  const bool of_data_store = name == kDsInfoFile || name == kDsInfoLockFile;
  if (of_data_store) {
    return directory.components.size() == 1 ? "" : "is not in a data store's directory";
  }
  const std::size_t suffix = name.find(".db-");
  if (suffix == std::string::npos) return "";
  const std::string database = name.substr(0, suffix) + ".db";
  return is_there(directory.child(database).full()) ? "" : "is a journal without its database";
}

std::string entry_fault(const CatalogPath& directory, const DirEntry& entry) {
  const bool examined_itself = entry.name == DirPO::recordfilename() ||
                               entry.name == SQLitePODB::dbfilename() ||
                               entry.name == SQLiteULDB::dbfilename();
  if (examined_itself) return "";
  if (entry.kind == EntryKind::directory) {
    return is_reserved_name(entry.name) ? "is a directory where a file of the catalog belongs" : "";
  }
  if (!is_reserved_name(entry.name) || entry.kind != EntryKind::file) {
    return "is nothing of the catalog's";
  }
  return misplaced_fault(directory, entry.name);
}

void check_entries(const CatalogPath& directory, Look* look) {
  DirPager entries(directory.full());
  while (const DirEntry* entry = entries.next()) {
    const std::string fault = entry_fault(directory, *entry);
    const std::string path = directory.child(entry->name).full();
    // What somebody is just writing has gone or changed its name by now.
    if (!fault.empty() && is_there(path)) look->add(path, fault);
  }
}

void check_record(const CatalogPath& directory, Look* look) {
  const std::string file = directory.child(DirPO::recordfilename()).full();
  struct stat found = {};
  if (lstat(file.c_str(), &found) != 0) {
    const bool due = directory.components.size() >= kImageDepth && is_there(directory.full());
    if (due) look->add(file, "is missing");
    return;
  }
  if (!S_ISREG(found.st_mode)) return look->add(file, "is not a regular file");
  if (found.st_size > kLongestRecord) return look->add(file, "is too long for a record");
  std::string text;
  const cr_status_t status = keep_errno_of(wa_readfile(file.c_str(), &text));
  if (status != CR_STATUS_OK) return look->add_unexamined(file, status, "cannot be read");
  for (const std::string& fault : record_faults(text, PO_TYPE_DIR)) look->add(file, fault);
}

// What was seen of a directory, and its databases, open.
struct Seen {
  Look look;
  OpenDatabase entries;
  OpenDatabase lists;

  Seen(const CatalogPath& directory, bool disturbed) : look(disturbed) {
    check_entries(directory, &look);
    check_record(directory, &look);
    entries = open_entries(directory, &look);
    lists = open_lists(directory, &look);
  }
  Seen(const Seen&) = delete;  // the databases refer to the look
  Seen& operator=(const Seen&) = delete;
  ~Seen() = default;
};

enum class Lock { held, busy, impossible };

// Shared: two checks do not wait for each other. A deleted directory is locked in vain.
Lock try_lock(const CatalogPath& directory, refhost::Fd* lock) {
  *lock =
      refhost::Fd(open(directory.full().c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!*lock) return Lock::impossible;
  if (flock(lock->get(), LOCK_SH | LOCK_NB) != 0) {
    return errno == EWOULDBLOCK || errno == EINTR ? Lock::busy : Lock::impossible;
  }
  struct stat locked = {};
  const bool deleted = fstat(lock->get(), &locked) == 0 && locked.st_nlink == 0;
  return deleted ? Lock::busy : Lock::held;
}

// Not at once: who makes a directory locks it only a moment later.
Lock take_lock(const CatalogPath& directory, refhost::Fd* lock, Findings* findings) {
  Lock result = Lock::busy;
  for (int attempt = 0; attempt < kMostAttempts && result == Lock::busy; ++attempt) {
    findings->between_pages();
    std::this_thread::sleep_for(kBetweenAttempts);
    result = try_lock(directory, lock);
  }
  return result;
}

// What cannot be locked is looked at again all the same.
std::unique_ptr<Seen> look_again(const CatalogPath& directory, Findings* findings) {
  refhost::Fd lock;
  const Lock taken = take_lock(directory, &lock, findings);
  return std::make_unique<Seen>(directory, taken == Lock::busy);
}

}  // namespace

void verify_directory(const CatalogPath& directory, Findings* findings) {
  findings->between_pages();
  auto seen = std::make_unique<Seen>(directory, false);
  if (!seen->look.found_nothing()) seen = look_again(directory, findings);
  seen->look.tell(findings);
  const bool entries = verify_entries(seen->entries, findings);
  const bool lists = verify_lists(seen->lists, findings);
  seen->look.tell(findings);
  if (!entries || !lists) return;
  tell_mismatches(directory, seen->entries.connection(), seen->lists.connection(), findings);
}

}  // namespace cli
