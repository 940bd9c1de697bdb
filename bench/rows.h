// Rows as real ones are: names of 40 bytes, POIDs of 64, contents of 180 to 250.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
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

// A text that the host made, from malloc.
struct FreeHostText {
  void operator()(char* text) const { std::free(text); }
};
using HostText = std::unique_ptr<char, FreeHostText>;

// The same rows for the same numbers, whoever asks; in ascending order of their names. Another
// `version` differs in the contents only.
std::vector<Row> make_rows(std::size_t count, std::size_t version = 0);

std::string make_poid(std::size_t number);

// The checksum that is stored with a row.
std::uint32_t checksum(const Row& row);

// An entry to put: its record lies in `directory` of the image.
std::unique_ptr<FilePO> make_entry(const Row& row, const std::string& root,
                                   const std::string& directory);

// The indexes of `count` rows in an order that looks random, and is the same in every run.
std::vector<std::size_t> shuffled(std::size_t count);

// "1 000 000", for names of cases.
std::string grouped(std::size_t number);

// Ends the program with a text when a status is not 0: a measurement of a failure is none.
void fail(unsigned long status, const char* what);
inline void must(unsigned long status, const char* what) {
  if (status != 0) fail(status, what);
}

}  // namespace bench
