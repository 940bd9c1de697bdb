#include "po/dir_po.h"

#include <sys/stat.h>

#include <cerrno>
#include <cstring>

#include "host/files.h"
#include "host/log.h"
#include "po/host_values_internal.h"
#include "podb/podb.h"

namespace {

// Stands for a directory that exists, or is about to, but whose attributes never arrived.
constexpr const char* kDefaultRecord = "0|||1|||||0|N|0|040755|0||260|0|0|0|1024||||0|||0|64|0|0";

constexpr unsigned int kDirMode = 0700;

std::string record_path(const std::string& dir) { return dir + "/" + DirPO::recordfilename(); }

bool is_there(const std::string& path) { return wa_access(path.c_str(), 0) == CR_STATUS_OK; }

// Whether the database file has content, or could not be examined: dropping it answers the same for
// a file that is not there and for one that cannot be opened.
bool may_hold_rows(const std::string& dbfile) {
  struct stat info = {};
  const cr_status_t status = wa_stat(dbfile.c_str(), &info);
  if (status == CR_STATUS_OK) return info.st_size > 0;
  return status != CR_STATUS_NOT_FOUND;
}

// An entry without a name of its own, as one that was saved before, would stand for its parent, and
// one that leads upward for another data store: its removal would take that along.
bool names_directory(const PO& entry) {
  const std::string leaf = text_or_empty(POGetBasename(entry.record()));
  const std::string path = entry.GetLocalInternalDirName() + "/" + leaf + "/";
  return !leaf.empty() && leaf != "." && path.find("/../") == std::string::npos;
}

unsigned int refuse_nameless() {
  ErrorA(CR_STATUS_NO_LOCATION, "%s: the directory entry names no directory below its data store",
         "update");
  return as_result(CR_STATUS_NO_LOCATION);
}

bool keeps_rows(PODB* db) {
  const cr_status_t dropped = db->drop_db_if_empty();
  if (dropped == CR_STATUS_OK) return false;
  if (dropped != CR_STATUS_NOT_FOUND) return true;
  const std::string dbfile = db->get_dbfile_path();
  return !dbfile.empty() && may_hold_rows(dbfile);
}

}  // namespace

const char* DirPO::recordfilename() { return "__dirpo__"; }

unsigned int DirPO::load(const std::string& root, const std::string& dir) {
  const std::string file = record_path(dir);
  std::string text;
  const cr_status_t status = wa_readfile(file.c_str(), &text);
  if (status == CR_STATUS_NOT_FOUND) {
    if (TraceOn()) __Trace("no _dirpo_ founded [%s]", file.c_str());
    text = kDefaultRecord;
  } else if (status != CR_STATUS_OK) {
    ErrorA(status, "can't open DirPO file %s", dir.c_str());
    return as_result(status);
  }
  const unsigned int result = set(root, text, dir);
  if (result != 0) {
    ErrorA(as_status(result), "can't set po [%s][%s]", file.c_str(), text.c_str());
  }
  return result;
}

unsigned int DirPO::load(PODB* db, const std::string& dir) { return load(db->get_root(), dir); }

unsigned int DirPO::load(PODB* db, const std::string& dir, unsigned int) { return load(db, dir); }

unsigned int DirPO::save(const std::string& dir) {
  const cr_status_t status = wa_createtree(dir.c_str(), kDirMode);
  if (status != CR_STATUS_OK) {
    ErrorA(status, "could not create directory %s", dir.c_str());
    return as_result(status);
  }
  const std::string file = record_path(dir);
  const unsigned int result = write(file);
  if (result != 0) ErrorA(as_status(result), "can not write dirpo entry [%s]", file.c_str());
  return result;
}

unsigned int DirPO::save(PODB*, const std::string& dir) { return save(dir); }

unsigned int DirPO::remove(PODB* db, const std::string& dir) {
  if (keeps_rows(db)) {
    WarningA(0, "PO databases in %s is not empty!", dir.c_str());
    return 0;
  }
  const std::string file = record_path(dir);
  cr_status_t status = wa_deletefile(file.c_str());
  if (status != CR_STATUS_OK && status != CR_STATUS_NOT_FOUND) {
    WarningA(status, "%s: Failed to delete file %s (%s), will try delete tree.", "remove",
             file.c_str(), std::strerror(errno));
  }
  // The tree goes even when the file went cleanly: intended.
  status = wa_deletetree(dir.c_str());
  if (status != CR_STATUS_OK) {
    ErrorA(status, "%s: Failed to delete directory %s (%s).", "remove", dir.c_str(),
           std::strerror(errno));
  }
  return as_result(status);
}

unsigned int DirPO::update(PODB* db, ds_info_t& info, std::vector<PO*>&, std::vector<PO*>&,
                           std::string& action) {
  const int type = POGetType(record());
  if (type != PO_TYPE_DIR) {
    ErrorA(CR_STATUS_BAD_RECORD, "%s: unexpected PO type %d", "update", type);
    return as_result(CR_STATUS_BAD_RECORD);
  }
  if (!names_directory(*this)) return refuse_nameless();
  const std::string path = catalog_path(*this, db->get_root());
  if (POGetModType(record()) == PO_MODTYPE_DELETE) {
    const unsigned int result = remove(db, path);
    if (result == 0) --info.dir_count;
    action = "D";
    return result;
  }
  const bool is_new = !is_there(record_path(path));  // also when the directory is missing
  const unsigned int result = save(db, path);
  if (result == 0 && is_new) ++info.dir_count;
  action = "A";
  return result;
}

std::uint64_t DirPO::get_size() { return 0; }
