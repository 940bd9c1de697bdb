// The rows of a directory's database, page by page.
#pragma once

#include <boost/smart_ptr/intrusive_ptr.hpp>
#include <cstddef>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "podb/sqlite_podb.h"

namespace cli {

// SQL for the rows with a name. Others must not stop a walk by name or send it in circles: a blob
// is greater than every text, and a text with a NUL in it reads back shorter than it compares.
inline constexpr const char* kNamedRows =
    "(typeof(basename) = 'text' AND basename NOT IN ('', '.', '..')"
    " AND instr(CAST(basename AS BLOB), x'00') = 0 AND instr(CAST(basename AS BLOB), x'2F') = 0)";

struct Row {
  std::string name;
  boost::intrusive_ptr<PO> entry;  // null when the row is damaged
};

// Walks a directory's rows in order of their names. Holds one page of rows, and no lock between two
// pages: whoever writes meanwhile does not wait, and what is written is seen from the next page on.
// A directory without a database has no rows.
class RowPager {
 public:
  // Passes over rows that do not meet `condition`, raw SQL; empty means every row.
  explicit RowPager(const CatalogPath& directory, const std::string& condition = "");

  // The next row, null after the last one or when `status` is not 0. It lives until the next call.
  const Row* next();
  cr_status_t status() const { return status_; }

  // Whether there are rows that the walk passes over: their names are none.
  bool has_nameless_rows();

 private:
  bool fill();
  cr_status_t look();
  cr_status_t read_page();

  SQLitePODB db_;
  const std::string condition_;
  std::vector<Row> page_;
  std::size_t position_ = 0;
  bool last_page_ = false;
  cr_status_t status_ = CR_STATUS_OK;
};

}  // namespace cli
