#include "podb/retention.h"

#include <boost/algorithm/string/predicate.hpp>
#include <cerrno>
#include <cstring>
#include <limits>

#include "host/host.h"
#include "po/file_po.h"
#include "po/host_values_internal.h"
#include "podb/sqlite_podb.h"

namespace {

constexpr const char* kSetRetention = "set_retention";
constexpr const char* kGetRetention = "get_retention";

// An empty entry to read into. Its dsid is read from what follows the directory in the file's path,
// the file's name, and so is 0: intended, not the database's own.
FilePO entry_for(SQLitePODB& db) {
  return FilePO(PO::CalculateDsid(db.get_db_dir(), db.get_dbfile_path()));
}

cr_status_t loaded(SQLitePODB& db, const std::string& basename, FilePO& po, const char* operation) {
  const cr_status_t status = db.get(basename, &po);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: get po failed for %s", operation, basename.c_str());
  }
  return status;
}

cr_status_t log_unchangeable(const std::string& basename) {
  const cr_status_t status = failure_status();
  ErrorA(status, "%s: set po failed for %s", kSetRetention, basename.c_str());
  return status;
}

// Flags are added only.
bool add_special_flags(_po_t* record, unsigned long flags) {
  std::uint32_t special = POGetSpecialFlags(record);
  if ((flags & RETENTION_IMMUTABLE) != 0) special |= SF_IMMUTABLE;
  if ((flags & RETENTION_LOCK) != 0) special |= SF_RETENTION_LOCK;
  if ((flags & RETENTION_CLOUD) != 0) special |= SF_CLOUDLSU;
  return POSetSpecialFlags(record, special) == 0;
}

// Whether `lock`, clock plus period, is a time that is not before the `current` lock. Readers may
// take a lock for signed or unsigned, so both orders count: a sum that wrapped or is negative is
// refused, and so is one below a current lock beyond 2^63.
bool is_raised(std::int64_t clock, long period, std::uint64_t current) {
  std::int64_t lock = 0;
  if (__builtin_add_overflow(clock, period, &lock) || lock < 0) return false;
  return static_cast<std::uint64_t>(lock) >= current;
}

// The new lock of `record` against the compliance clock; it never moves backwards.
cr_status_t new_lock(const _po_t* record, long period, const std::string& basename,
                     std::uint64_t& lock) {
  timeval clock{};
  const cr_status_t status = get_compclk(&clock);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: get_compclk failed : errno = %d", kSetRetention, errno);
    return status;
  }
  const std::uint64_t current = POGetAtime(record);
  lock = static_cast<std::uint64_t>(clock.tv_sec) + static_cast<std::uint64_t>(period);
  if (!is_raised(clock.tv_sec, period, current)) {
    ErrorA(CR_STATUS_LOCK_LOWERED,
           "%s: the retention lock %lu is less than previous value %lu for %s", kSetRetention, lock,
           current, basename.c_str());
    return CR_STATUS_LOCK_LOWERED;
  }
  if (TraceOn()) {
    // The values do not match their labels, intended.
    __Trace("%s: cloudlsu=%d, retention lock = %lu, PO ctime = %lu PO atime is %lu for image %s",
            kSetRetention, 0, static_cast<unsigned long>(period), current, POGetCtime(record),
            basename.c_str());
  }
  return CR_STATUS_OK;
}

// On cloud storage the lock follows the creation time, wherever it was before: intended.
cr_status_t set_lock(_po_t* record, unsigned long flags, long period, const std::string& basename) {
  std::uint64_t lock = POGetCtime(record) + static_cast<std::uint64_t>(period);
  if ((flags & RETENTION_CLOUD) == 0) {
    const cr_status_t status = new_lock(record, period, basename, lock);
    if (status != CR_STATUS_OK) return status;
  }
  return POSetAtime(record, lock) == 0 ? CR_STATUS_OK : log_unchangeable(basename);
}

bool is_name_of(const _po_t* record, const std::string& basename) {
  const std::string leaf = text_or_empty(POGetBasename(record));
  if (OSIsCaseSensitive()) return leaf == basename;
  return boost::algorithm::iequals(leaf, basename);
}

// Reading locates an entry by its path, and below a catalog's root there is none for files: written
// back under another name, the entry would be invented.
cr_status_t stored(SQLitePODB& db, const std::string& basename, FilePO& po) {
  const cr_status_t status =
      is_name_of(po.record(), basename) ? db.put(&po) : CR_STATUS_NO_LOCATION;
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: put po failed for %s", kSetRetention, basename.c_str());
  }
  return status;
}

// `time` minus `now`; a difference that the result cannot hold stays at its end, so that a lock in
// the far future is not one of the past.
std::int64_t offset(std::uint64_t time, std::int64_t now) {
  std::int64_t difference = 0;
  if (!__builtin_sub_overflow(time, now, &difference)) return difference;
  return std::numeric_limits<std::int64_t>::max();
}

void fill_offsets(const _po_t* record, std::int64_t now, tolvfs_worm_info_t& info) {
  info.ctime_offset = offset(POGetCtime(record), now);
  info.ctime_offset_again = info.ctime_offset;
  info.lock_remaining = offset(POGetAtime(record), now);
  const bool locked = (POGetSpecialFlags(record) & SF_RETENTION_LOCK) != 0;
  if (locked && info.lock_remaining > 0) info.worm_flags |= WORM_LOCKED;
}

// `info` is zero: a shorter reference is terminated.
void fill_cdo_ref(const _po_t* record, tolvfs_worm_info_t& info) {
  const char* reference = POGetCdoRef(record);
  if (reference == nullptr) return;
  std::memcpy(info.cdo_ref, reference, strnlen(reference, sizeof info.cdo_ref));
}

}  // namespace

cr_status_t SQLitePODB::set_retention(const std::string& basename, unsigned long flags,
                                      long retention) {
  FilePO po = entry_for(*this);
  const cr_status_t status = loaded(*this, basename, po, kSetRetention);
  if (status != CR_STATUS_OK) return status;
  if (!add_special_flags(po.record(), flags)) return log_unchangeable(basename);
  if ((flags & RETENTION_LOCK) != 0) {
    const cr_status_t locked = set_lock(po.record(), flags, retention, basename);
    if (locked != CR_STATUS_OK) return locked;
  }
  return stored(*this, basename, po);
}

cr_status_t SQLitePODB::get_retention(const std::string& basename, tolvfs_worm_info_t& info) {
  FilePO po = entry_for(*this);
  info = {};
  const cr_status_t status = loaded(*this, basename, po, kGetRetention);
  if (status != CR_STATUS_OK) return status;
  const std::uint32_t special = POGetSpecialFlags(po.record());
  if ((special & (SF_IMMUTABLE | SF_RETENTION_LOCK)) == 0) return CR_STATUS_OK;
  timeval clock{};
  const bool on_cloud = (special & SF_CLOUDLSU) != 0;  // no clock there, and no times
  const cr_status_t read = on_cloud ? CR_STATUS_OK : get_compclk(&clock);
  if (read != CR_STATUS_OK) {
    ErrorA(read, "%s: get compliance clock failed for %s", kGetRetention, basename.c_str());
    return read;
  }
  if ((special & SF_IMMUTABLE) != 0) info.worm_flags |= WORM_IMMUTABLE;
  if (!on_cloud) fill_offsets(po.record(), clock.tv_sec, info);
  fill_cdo_ref(po.record(), info);
  return CR_STATUS_OK;
}
