// File entries.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "host/worm.h"
#include "po/po.h"

// A file. It lives as a row of its directory's database, keyed by its leaf. Of a full path only the
// leaf is used: `db` is already the database of that directory. What is not said here comes from
// the database and is documented there.
class POCATALOG_API FilePO : public PO {
 public:
  using PO::PO;
  // Over an empty record without a location. Throws Cr_ErrnoException, CR_STATUS_NO_RECORD.
  explicit FilePO(unsigned int dsid_of_store) : PO(dsid_of_store) {}
  FilePO(const FilePO&) = default;
  FilePO& operator=(const FilePO&) = delete;
  ~FilePO() override = default;

  unsigned int load(PODB* db, const std::string& path) override;
  unsigned int load(PODB* db, const std::string& path, bool flag);

  // Inserts or replaces the row. The name is the record's; the entry loses its location
  // (PODB::put).
  unsigned int save(PODB* db, const std::string& path) override;

  // Removes the row of this leaf and of this entry's POID. CR_STATUS_NOT_PROVIDED on a store that
  // does not tell entries of one name apart by POID, as SQLitePODB.
  unsigned int remove(PODB* db, const std::string& path) override;

  bool exists(PODB* db, const std::string& path) const;

  unsigned int get_retention(PODB* db, const std::string& path, tolvfs_worm_info_t& info) const;
  unsigned int set_retention(PODB* db, const std::string& path, unsigned long flags,
                             long retention) const;

  // Adds or replaces this entry or, when its modification code is PO_MODTYPE_DELETE, deletes the
  // entry of its name. The caller brackets a batch of updates in a transaction of `db`.
  //
  // - `info` follows what was done, after it was done: size and count.
  // - `removed_pos` gets the displaced old entries, which the caller then owns, so that it releases
  //   their data. An entry added again unchanged displaces nothing.
  // - `udcid_pos` gets this entry (not owned) when its containers are to be recorded.
  // - `action` is read: "action_imgchk" protects immutable entries from deletion. Replacing one is
  //   refused whatever it says; the asymmetry is intended.
  //
  // Returns 0, also for deleting what is not there; CR_STATUS_BAD_RECORD when this is no file
  // entry; CR_STATUS_IMMUTABLE, nothing changed or listed; CR_STATUS_NO_MEMORY; the status with
  // which the database could not be read, nothing changed; or the status of the failing removal or
  // save: then roll the transaction back, `removed_pos` may hold entries. Throws Cr_ErrnoException
  // when the host cannot make a record.
  //
  // A saved entry has lost its location and is not saved again.
  unsigned int update(PODB* db, ds_info_t& info, std::vector<PO*>& removed_pos,
                      std::vector<PO*>& udcid_pos, std::string& action) override;

  std::uint64_t get_size() override;

  // Whether the entry references stored data: any of the three fingerprints. Null has none.
  static bool hasData(const PO* entry);

 private:
  friend class PO;
  FilePO(PORecord taken, unsigned int dsid_of_store) : PO(std::move(taken), dsid_of_store) {}
};
