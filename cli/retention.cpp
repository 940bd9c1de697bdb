#include "podb/retention.h"

#include <fmt/format.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <ostream>

#include "cli/dir_lock.h"
#include "cli/entry.h"
#include "cli/format.h"
#include "cli/json.h"
#include "cli/protection.h"
#include "cli/retention.h"
#include "podb/sqlite_podb.h"

namespace cli {
namespace {

constexpr const char* kNoFile = "no such file in the catalog; only the entries of files are locked";

// Why nothing was locked; the text is empty when it was.
struct Refusal {
  cr_status_t status = CR_STATUS_OK;
  std::string text;
  ExitStatus exit = kFailed;
};

Refusal unreachable(cr_status_t status) {
  const bool absent = status == CR_STATUS_NOT_FOUND;
  return {status, absent ? kNoFile : "not locked: its directory cannot be reached"};
}

// A transaction on a database that exists; rolled back unless it is committed.
class Transaction {
 public:
  explicit Transaction(SQLitePODB& db) : db_(db), status_(db.begin_transaction()) {}
  Transaction(const Transaction&) = delete;
  Transaction& operator=(const Transaction&) = delete;
  ~Transaction() {
    if (status_ == CR_STATUS_OK && !committed_) db_.rollback_transaction();
  }

  cr_status_t status() const { return status_; }
  cr_status_t commit() {
    const cr_status_t status = db_.commit_transaction();
    committed_ = status == CR_STATUS_OK;
    return status;
  }

 private:
  SQLitePODB& db_;
  const cr_status_t status_;
  bool committed_ = false;
};

// Sets the lock of one entry.
class LockSetting {
 public:
  LockSetting(const CatalogPath& path, const RetentionSetOptions& options,
              const ComplianceClock& clock)
      : path_(path), options_(options), clock_(clock), db_(path.root, path.parent().full()) {}

  Refusal apply() {
    DirLock lock;
    cr_status_t status = lock.lock(path_.parent().full());
    // Never begun on a database that is not there: that would make one.
    if (status == CR_STATUS_OK) status = db_.check_db_existence(false);
    if (status == CR_STATUS_NOT_FOUND) return {status, kNoFile};
    if (status != CR_STATUS_OK) return {status, "not locked: its database cannot be read"};
    Transaction transaction(db_);
    if (transaction.status() != CR_STATUS_OK) {
      return {transaction.status(), "not locked: its database cannot be written"};
    }
    Refusal refusal = change();
    if (!refusal.text.empty()) return refusal;
    status = transaction.commit();
    if (status != CR_STATUS_OK) return {status, "not locked: the change could not be committed"};
    return {};
  }

 private:
  Refusal change() {
    FilePO stored(*path_.dsid());
    cr_status_t status = db_.get(path_.leaf(), &stored);
    if (status == CR_STATUS_NOT_FOUND) return {status, kNoFile};
    if (is_damage(status)) return {CR_STATUS_OK, kDamagedText, kInconsistent};
    if (status != CR_STATUS_OK) return {status, "not locked: the entry cannot be read"};
    Refusal refusal = judge(stored.record());
    if (!refusal.text.empty()) return refusal;
    status = db_.set_retention(path_.leaf(), flags(), options_.seconds);
    if (status == CR_STATUS_LOCK_LOWERED) return lowered(stored.record());
    if (status != CR_STATUS_OK) return {status, "not locked: the entry cannot be stored"};
    return {};
  }

  // The library itself would set a lower lock on cloud storage, and lets a sum wrap there.
  Refusal judge(const _po_t* record) const {
    if (!options_.cloud && !clock_.now()) {
      return {CR_STATUS_NOT_PROVIDED, "not locked: the compliance clock cannot be read"};
    }
    const std::uint64_t base = options_.cloud ? POGetCtime(record) : *clock_.now();
    std::int64_t lock = 0;
    if (__builtin_add_overflow(base, options_.seconds, &lock)) {
      return {CR_STATUS_LOCK_LOWERED, "not locked: no time is as late as the end of that lock"};
    }
    const bool lower = static_cast<std::uint64_t>(lock) < POGetAtime(record);
    return lower && lock_in_force(record, clock_) ? lowered(record) : Refusal{};
  }

  // An access time without a lock does not count as one, but the library does not go below it.
  Refusal lowered(const _po_t* record) const {
    const std::uint64_t current = POGetAtime(record);
    if (!lock_in_force(record, clock_)) {
      return {CR_STATUS_LOCK_LOWERED,
              "not locked: its access time is later than the end of that "
              "lock: " +
                  lock_text(current, clock_)};
    }
    return {CR_STATUS_LOCK_LOWERED,
            "not shortened: the lock in force ends at " + lock_text(current, clock_), kLockInForce};
  }

  unsigned long flags() const {
    return RETENTION_LOCK | (options_.immutable ? RETENTION_IMMUTABLE : 0) |
           (options_.cloud ? RETENTION_CLOUD : 0);
  }

  const CatalogPath path_;
  const RetentionSetOptions& options_;
  const ComplianceClock& clock_;
  SQLitePODB db_;
};

void print_json(const Console& console, const CatalogPath& path, const _po_t* record,
                const ComplianceClock& clock) {
  const std::uint32_t flags = POGetSpecialFlags(record);
  const std::uint64_t lock = POGetAtime(record);
  const auto now = clock.now();
  nlohmann::ordered_json object;
  set_name(object, "path", path.inner());
  object["immutable"] = (flags & SF_IMMUTABLE) != 0;
  object["cloud"] = (flags & SF_CLOUDLSU) != 0;
  object["in_force"] = lock_in_force(record, clock);
  object["clock"] = now ? nlohmann::ordered_json(utc_time(*now)) : nullptr;
  if ((flags & SF_RETENTION_LOCK) != 0) {
    object["lock"] = utc_time(lock);
    object["lock_seconds"] = lock;
    if (now) object["remaining_seconds"] = lock > *now ? lock - *now : 0;
  }
  print_line(console, object);
}

void print(const Console& console, const CatalogPath& path, const _po_t* record,
           const ComplianceClock& clock) {
  if (console.json) return print_json(console, path, record, clock);
  const std::uint32_t flags = POGetSpecialFlags(record);
  const bool locked = (flags & SF_RETENTION_LOCK) != 0;
  const auto line = [&console](const char* name, const std::string& value) {
    console.out << fmt::format("{:<9}  {}\n", name, value);
  };
  line("path", printable(path.inner()));
  line("lock", locked ? lock_text(POGetAtime(record), clock) : "none");
  line("immutable", (flags & SF_IMMUTABLE) != 0 ? "yes" : "no");
  line("cloud", (flags & SF_CLOUDLSU) != 0 ? "yes" : "no");
  line("clock", clock.now() ? utc_time(*clock.now()) : "cannot be read: every lock is in force");
}

int show_entry(const Console& console, const CatalogPath& path, bool directory_only,
               const ComplianceClock& clock) {
  std::unique_ptr<PO> entry;
  const cr_status_t status = read_entry(path, directory_only, &entry);
  if (status == CR_STATUS_OK) {
    print(console, path, entry->record(), clock);
    return kDone;
  }
  return report_unread(console, path, status);
}

}  // namespace

int retention_set(const Console& console, const RetentionSetOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path || path->components.empty()) return report_bad_path(console, options.path);
  const bool directory = names_directory(options.path) || path->components.size() == 1;
  const cr_status_t reached = directory ? CR_STATUS_NOT_FOUND : check_directory(path->parent());
  const ComplianceClock clock;
  const Refusal refusal =
      reached == CR_STATUS_OK ? LockSetting(*path, options, clock).apply() : unreachable(reached);
  if (refusal.text.empty()) return show_entry(console, *path, false, clock);
  report(console, path->full(), refusal.status, refusal.text);
  return refusal.exit;
}

int retention_show(const Console& console, const RetentionShowOptions& options) {
  const auto path = catalog_path(options.root, options.path);
  if (!path || path->components.empty()) return report_bad_path(console, options.path);
  return show_entry(console, *path, names_directory(options.path), ComplianceClock());
}

}  // namespace cli
