// Directory entries.
#pragma once

#include <string>
#include <utility>
#include <vector>

#include "po/po.h"

// A directory. It lives as a real directory below the catalog root, which holds the directory's own
// record in the file "__dirpo__" (the text form, without location and without a newline) beside the
// database of the files in it. `dir` arguments are full paths of that directory.
class POCATALOG_API DirPO : public PO {
 public:
  using PO::PO;
  // Over an empty record without a location. Throws Cr_ErrnoException, CR_STATUS_NO_RECORD.
  explicit DirPO(unsigned int dsid_of_store) : PO(dsid_of_store) {}
  DirPO(const DirPO&) = default;
  DirPO& operator=(const DirPO&) = delete;
  ~DirPO() override = default;

  // Reads the directory's record; a default record when there is no "__dirpo__". `db` serves for
  // its root only, and the number is ignored.
  unsigned int load(const std::string& root, const std::string& dir);
  unsigned int load(PODB* db, const std::string& dir) override;
  unsigned int load(PODB* db, const std::string& dir, unsigned int n);

  // Creates the directory (and its parents, mode 0700) and writes "__dirpo__". The entry loses its
  // location (PO::write). The database is not used.
  unsigned int save(const std::string& dir);
  unsigned int save(PODB* db, const std::string& dir) override;

  // Drops `db`, the directory's own database, if it holds no row, and then deletes the directory
  // with all that lies in it, subdirectories included: the caller sees to it that there are none. A
  // database that holds rows, or that could not be examined, keeps the directory: a warning, and 0,
  // as intended.
  unsigned int remove(PODB* db, const std::string& dir) override;

  // Saves this entry or, when its modification code is PO_MODTYPE_DELETE, removes it; `db` is the
  // directory's own database. Counts a directory that was new (it or its "__dirpo__" was missing),
  // and discounts a removal that returned 0, a kept directory included, as intended. `action`
  // becomes "A" or "D". The vectors are not touched. CR_STATUS_BAD_RECORD when this is
  // no directory entry and CR_STATUS_NO_LOCATION when it has no name or ".." in its path; `action`
  // is not touched then.
  unsigned int update(PODB* db, ds_info_t& info, std::vector<PO*>& removed_pos,
                      std::vector<PO*>& udcid_pos, std::string& action) override;

  // Always 0.
  std::uint64_t get_size() override;

  // The name of the file that holds a directory's record.
  static const char* recordfilename();

 private:
  friend class PO;
  DirPO(PORecord taken, unsigned int dsid_of_store) : PO(std::move(taken), dsid_of_store) {}
};
