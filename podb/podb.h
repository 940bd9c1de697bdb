// The database of path objects of one catalog directory: the interface of every store.
#pragma once

#include <atomic>
#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstdint>
#include <deque>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "base/export.h"
#include "host/files.h"
#include "host/status.h"
#include "host/worm.h"
#include "po/po.h"

// Results of many operations: appended in row order.
using POQueue = std::deque<boost::intrusive_ptr<PO>>;

// Any other value leaves the order to the store.
enum OrderType : std::uint32_t { ORDER_NONE = 0, ORDER_ASCENDING = 1, ORDER_DESCENDING = 2 };

// What `select` selects.
struct POCATALOG_API QueryParams {
  bool allow_missing = false;         // a database that cannot be opened counts as empty
  std::string where;                  // raw SQL condition; empty means every row
  OrderType order = ORDER_ASCENDING;  // by basename
  std::uint64_t limit = 0;            // most rows; 0 means no limit
};

// Operation counters; no store of this library counts.
struct POCATALOG_API OpsCount {
  std::uint64_t reads = 0;
  std::uint64_t writes = 0;
};

// The caller's visitor of process_by_pattern. `po` lives for the call only: copy what is to be
// kept. The database must not be closed from inside, nor the pool called: the connection is in use.
// What it throws ends the walk and leaves the calling operation.
class POCATALOG_API POProcessor {
 public:
  POProcessor() = default;
  POProcessor(const POProcessor&) = default;
  POProcessor& operator=(const POProcessor&) = default;
  virtual ~POProcessor();
  // The result is ignored; a walk cannot be stopped by it.
  virtual int process(PO* po) = 0;
};

// A database of the path objects of one catalog directory, keyed by basename.
//
// Statuses: CR_STATUS_NOT_FOUND for what is not there, CR_STATUS_BAD_ARG for a null output
// argument, CR_STATUS_NOT_PROVIDED for an operation that the store does not have. One object is
// used by one thread at a time; only is_transaction_active may be called from others meanwhile.
class POCATALOG_API PODB {
 public:
  // `directory` lies below `catalog_root`; its first component there is the dsid. Opens nothing.
  PODB(const std::string& catalog_root, const std::string& directory);
  PODB(const PODB&) = delete;
  PODB& operator=(const PODB&) = delete;
  virtual ~PODB();

  // Whether there is an entry of that name. False also when that could not be found out: a store
  // leaves the status in the host's status cell then, and 0 there otherwise.
  virtual bool exists(const std::string& basename) = 0;

  // Fills `po` from the entry of that name. `flag` belongs to the store, which treats the status
  // cell as `exists` does: a damaged entry is there. CR_STATUS_CORRUPT where a damaged index leads
  // to the row of another name.
  virtual cr_status_t get(const std::string& basename, PO* po, bool flag) = 0;
  virtual cr_status_t get(const std::string& basename, PO* po);

  // Inserts or replaces the entry that `po` describes. Strips the location of `po`
  // (PO::remove_info), even when it fails later: an object is put once. By a damaged index the row
  // of another name may be replaced, which a `get` before it would have told.
  virtual cr_status_t put(PO* po) = 0;

  // Deletes the entry of that name; of that name and `second`, the POID; or every listed one (0 as
  // soon as one was there). By a damaged index the row of another name may be deleted.
  virtual cr_status_t del(const std::string& basename) = 0;
  virtual cr_status_t del(const std::string& basename, const std::string& second);
  virtual cr_status_t del(const std::vector<std::string>& basenames) = 0;

  virtual cr_status_t count(unsigned long* n) = 0;

  // Entries whose name matches: "*" is the wildcard. `case_sensitive` belongs to the store.
  virtual cr_status_t find_by_pattern(const std::string& pattern, POQueue* out,
                                      bool case_sensitive) = 0;
  // The same, handed to a visitor one at a time.
  virtual cr_status_t process_by_pattern(const std::string& pattern, POProcessor* p);

  virtual cr_status_t immutable_catalog_query(const std::string& query, POQueue* out, bool flag);

  // Appends to `out`, or to `names` or else `pos`; nothing is cleared first.
  virtual cr_status_t select_basenames(std::vector<std::string>* out, const std::string& where,
                                       OrderType order, unsigned long limit) = 0;
  virtual cr_status_t select(const QueryParams& q, std::vector<std::string>* names, POQueue* pos);

  // Checks sets of POIDs against the entries. `out` gets the entries that use one of `affected`,
  // whose POIDs leave that set; POIDs in use leave `leak_candidates`; the number of entries is
  // added to `found`.
  virtual cr_status_t double_check(std::set<std::string>* affected, POQueue* out,
                                   std::set<std::string>* leak_candidates,
                                   unsigned long* found) = 0;

  // Appends the basenames after `cursor`, ascending. A store may ignore `limit`: page by passing
  // the last name received.
  virtual cr_status_t find_by_cursor(const std::string& cursor, std::vector<std::string>* out,
                                     unsigned long limit) = 0;

  // Removes a database without entries. CR_STATUS_NOT_EMPTY when it was kept.
  virtual cr_status_t drop_db_if_empty();

  // Closes; the next use opens again. The argument belongs to the store.
  virtual cr_status_t close_db(unsigned int flags);

  virtual std::string get_dbfile_path();
  virtual std::string get_db_dir();
  virtual OpsCount get_podb_ops();
  virtual OpsCount get_uldb_ops();
  virtual void clear_ops();
  virtual bool db_integrity_OK();

  // Retention of an entry: `flags` is the caller's flag word, `retention` a period in seconds.
  virtual cr_status_t set_retention(const std::string& basename, unsigned long flags,
                                    long retention);
  virtual cr_status_t get_retention(const std::string& basename, tolvfs_worm_info_t& info);

  // Transactions do not nest: a second begin fails in the store. What fails leaves the state as it
  // was.
  cr_status_t begin_transaction();
  cr_status_t commit_transaction();
  cr_status_t rollback_transaction();

  // True between a successful begin and a successful commit or rollback. `seconds` (may be null)
  // gets the whole seconds since the last attempt at one of the three, or since construction. May
  // be called from any thread.
  bool is_transaction_active(unsigned long* seconds) const;

  // Every basename, ascending.
  cr_status_t get_basenames(std::vector<std::string>* out);

  const std::string& get_root() const { return root; }
  const std::string& get_dir() const { return dir; }
  unsigned int get_dsid() const { return dsid; }

 protected:
  virtual cr_status_t do_begin_transaction() = 0;
  virtual cr_status_t do_commit_transaction() = 0;
  virtual cr_status_t do_rollback_transaction() = 0;

 private:
  cr_status_t end_transaction(cr_status_t status);

  // Constant after construction.
  const std::string dir;
  const unsigned int dsid;
  const std::string root;

  // Atomic because the pool reads them while their database is in use.
  std::atomic<bool> transaction_active{false};
  std::atomic<hrtime_t> last_transaction_change;
};

// Creates the databases of a pool.
class POCATALOG_API PODBFactory {
 public:
  PODBFactory() = default;
  PODBFactory(const PODBFactory&) = delete;
  PODBFactory& operator=(const PODBFactory&) = delete;
  virtual ~PODBFactory();
  virtual std::shared_ptr<PODB> create_podb(const std::string& root, const std::string& dir) = 0;
};
