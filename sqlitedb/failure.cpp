#include "sqlitedb/failure_internal.h"

namespace sqlitedb {

cr_status_t log_not_opened(const std::string& file) {
  ErrorA(CR_STATUS_NOT_FOUND, "%s is not opened.", file.c_str());
  return CR_STATUS_NOT_FOUND;
}

cr_status_t log_db_exception(const char* operation, const db_exception& caught) {
  ErrorA(caught.cr_status(), "%s: Catch sqlite database runtime exception [%d]: %s", operation,
         caught.errcode(), caught.what());
  return caught.cr_status();
}

std::string shortened_for_log(std::string_view sql) {
  constexpr std::size_t kLongest = 1024;
  constexpr std::string_view kDots = "....";
  if (sql.size() <= kLongest) return std::string(sql);
  return std::string(sql.substr(0, kLongest - kDots.size())).append(kDots);
}

// Logs before it throws: for failures whose callers drop the status this line is the only trace.
cr_status_t sqlite3_wrapper::on_db_error(int code) {
  const db_exception failure(code);
  InfoA(CR_STATUS_NONE, "[DBERR %08X]: %s", static_cast<unsigned int>(code), failure.what());
  if (failure.cr_status() == CR_STATUS_CORRUPT) throw db_exception(failure);
  return failure.cr_status();
}

}  // namespace sqlitedb
