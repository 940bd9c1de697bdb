// Rows as real ones are: names of 40 bytes, POIDs of 64, contents of 180 to 250.
#pragma once

#include <sqlite3.h>

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "host/po_record.h"
#include "po/file_po.h"

namespace bench {

struct Row {
  std::string basename;
  std::string poid;
  std::string content;  // the record's text as the store keeps it
};

// The same rows for the same numbers, whoever asks; in ascending order of their names.
std::vector<Row> make_rows(std::size_t count, std::size_t first = 0);

// An entry to put: its record lies in `directory` of the image.
std::unique_ptr<FilePO> make_entry(const Row& row, const std::string& root,
                                   const std::string& directory);

// The indexes of `count` rows in an order that looks random, and is the same in every run.
std::vector<std::size_t> shuffled(std::size_t count);

// A fresh directory that goes with its object.
class ScratchDir {
 public:
  ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  ~ScratchDir();
  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// A bare connection; what fails ends the program.
class BareDatabase {
 public:
  explicit BareDatabase(const std::string& file);
  BareDatabase(const BareDatabase&) = delete;
  BareDatabase& operator=(const BareDatabase&) = delete;
  ~BareDatabase();

  void exec(const std::string& sql, sqlite3_callback row = nullptr, void* context = nullptr);
  sqlite3* handle() { return db_; }

 private:
  sqlite3* db_ = nullptr;
};

// The statement that stores a row.
std::string insert_text(const Row& row);

// Ends the program with a text when a status is not 0: a measurement of a failure is none.
void must(unsigned long status, const char* what);

}  // namespace bench
