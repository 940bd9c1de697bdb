#include "sqlitedb/sql_file_internal.h"

#include <exception>
#include <fstream>
#include <iterator>

#include "host/log.h"

namespace sqlitedb {

cr_status_t read_sql_file(const std::string& file, const char* noun, std::string& sql) {
  try {
    std::ifstream stream(file, std::ios::binary);
    // The iterators let the exception of a failed read through, unlike the stream's own operators.
    sql.assign(std::istreambuf_iterator<char>(stream), std::istreambuf_iterator<char>());
    return CR_STATUS_OK;
  } catch (const std::exception&) {
    ErrorA(CR_STATUS_FAILED, "Failed to load the %s of %s", noun, file.c_str());
    return CR_STATUS_FAILED;
  }
}

}  // namespace sqlitedb
