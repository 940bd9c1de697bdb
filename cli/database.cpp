#include "cli/database.h"

#include "host/files.h"

namespace cli {
namespace {

bool is_empty_file(const std::string& path) {
  struct stat found {};
  return wa_stat(path.c_str(), &found) == CR_STATUS_OK && found.st_size == 0;
}

}  // namespace

cr_status_t examine_database(SQLitePODB& db, DatabaseState* state) {
  const cr_status_t status = db.check_db_existence(false);
  *state = DatabaseState::absent;
  if (status == CR_STATUS_NOT_FOUND) return CR_STATUS_OK;
  *state = DatabaseState::present;
  const cr_status_t read =
      status == CR_STATUS_OK ? db.exec_sql("SELECT 1 FROM po LIMIT 1", nullptr) : status;
  if (read == CR_STATUS_OK) return CR_STATUS_OK;
  // Somebody is at work in it: what it is shows later, and an empty file may become theirs.
  if (read == CR_STATUS_BUSY || read == CR_STATUS_IO_ERROR) return read;
  // Opening undoes the unfinished transaction of a crash. When that was the first one, it leaves
  // nothing.
  const cr_status_t closed = db.close_db(0);
  *state = DatabaseState::leftover;
  if (is_empty_file(db.get_dbfile_path())) return closed;
  return status == CR_STATUS_OK ? CR_STATUS_BAD_DATA : status;
}

}  // namespace cli
