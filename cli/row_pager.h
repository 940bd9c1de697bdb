// The rows of a directory's database, page by page.
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "cli/sqlite_reader.h"
#include "po/file_po.h"

namespace cli {

// SQL for the rows with a name. Others must not stop a walk by name: a blob is greater than every
// text, and a text with a NUL in it reads back shorter than it compares.
inline constexpr const char* kNamedRows =
    "(typeof(basename) = 'text' AND basename NOT IN ('', '.', '..')"
    " AND instr(CAST(basename AS BLOB), x'00') = 0 AND instr(CAST(basename AS BLOB), x'2F') = 0)";

struct Row {
  std::string name;
  FilePO* entry = nullptr;  // of the pager; null when the row is damaged
};

// Walks a directory's rows in order of their names. Holds one page of rows, and no lock between two
// pages: whoever writes meanwhile does not wait, and what is written is seen from the next page on.
// A directory without a database has no rows.
//
// Reads with one statement a page on a connection of its own: the library's queries leave damaged
// rows out, so that each page would have to be asked for its names and for its rows.
class RowPager {
 public:
  // Passes over rows that do not meet `condition`, raw SQL; empty means every row.
  explicit RowPager(const CatalogPath& directory, const std::string& condition = "");

  // The next row, null after the last one or when `status` is not 0. It lives until the next call.
  const Row* next();
  cr_status_t status() const { return status_; }

  // Whether there are rows whose names are none, which the walk passes over. After a walk without a
  // condition.
  bool has_nameless_rows() const { return nameless_rows_; }

 private:
  struct Stored {
    std::string name;
    std::string poid;
    std::string content;
    std::string crc;
    bool whole = false;  // no column is NULL
  };

  bool fill();
  cr_status_t read_next_page();
  cr_status_t open();
  cr_status_t read_page();
  cr_status_t keep(const Statement& row);
  cr_status_t look_for_nameless_rows();
  bool decode(const Stored& stored);

  const std::string root_;
  const std::string directory_;
  const std::string file_;
  const bool is_whole_;  // there is no condition
  const std::string sql_;
  Connection connection_;
  std::unique_ptr<Statement> statement_;
  std::vector<Stored> page_;
  std::size_t position_ = 0;
  std::size_t delivered_ = 0;  // of the pages before
  std::string last_name_;      // of the pages before
  std::string last_in_page_;
  bool last_page_ = false;
  bool nameless_rows_ = false;
  cr_status_t status_ = CR_STATUS_OK;
  FilePO entry_;
  Row row_;
};

}  // namespace cli
