#include "bench/rows.h"

#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>

#include "base/adler32.h"
#include "refhost/record.h"

namespace bench {

namespace {

std::string padded(std::size_t number, std::size_t size, char fill) {
  const std::string digits = std::to_string(number);
  return std::string(size - digits.size(), fill) + digits;
}

refhost::RecordFields fields_of(std::size_t number, std::size_t version) {
  refhost::RecordFields fields;
  fields.poid = make_poid(number);
  fields.content_fp = padded(number, 64, 'b');
  fields.size = 1000 + number;
  fields.mode = 0100644;
  fields.owner = std::string(number % 60, 'o');
  fields.ctime = fields.atime = 1700000000 + number;
  fields.mtime = fields.ctime + version;
  return fields;
}

}  // namespace

// As hashes are: no order in them.
std::string make_poid(std::size_t number) {
  std::mt19937_64 digits(number);
  std::string poid;
  while (poid.size() < 64) poid += "0123456789abcdef"[digits() >> 60];
  return poid;
}

std::vector<Row> make_rows(std::size_t count, std::size_t version) {
  std::vector<Row> rows;
  rows.reserve(count);
  const PORecord record(POCreate());
  for (std::size_t number = 0; number < count; ++number) {
    const refhost::RecordFields fields = fields_of(number, version);
    must(refhost::set_fields(record.get(), fields) != 0, "set_fields");
    const HostText content(POToStringMalloced(record.get()));
    rows.push_back({"file-" + padded(number, 35, '0'), fields.poid, content.get()});
  }
  return rows;
}

std::uint32_t checksum(const Row& row) {
  std::uint32_t crc = base::kAdler32Start;
  for (const std::string* text : {&row.basename, &row.poid, &row.content}) {
    crc = base::adler32(crc, text->data(), text->size());
  }
  return crc;
}

std::unique_ptr<FilePO> make_entry(const Row& row, const std::string& root,
                                   const std::string& directory) {
  auto entry = std::make_unique<FilePO>(row.content);
  must(entry->add_info(root, directory + "/" + row.basename, nullptr), "add_info");
  return entry;
}

std::vector<std::size_t> shuffled(std::size_t count) {
  std::vector<std::size_t> order(count);
  std::iota(order.begin(), order.end(), std::size_t{0});
  std::shuffle(order.begin(), order.end(), std::mt19937(1));
  return order;
}

std::string grouped(std::size_t number) {
  std::string text = std::to_string(number);
  for (std::size_t digits = 3; digits < text.size(); digits += 4) {
    text.insert(text.size() - digits, 1, ' ');
  }
  return text;
}

void fail(unsigned long status, const char* what) {
  std::fprintf(stderr, "pocatalog-bench: %s failed with %lu\n", what, status);
  std::exit(1);
}

}  // namespace bench
