#include "bench/rows.h"

#include <stdlib.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <numeric>
#include <random>

#include "base/adler32.h"
#include "refhost/record.h"

namespace bench {

namespace {

struct Release {
  void operator()(char* text) const { free(text); }  // as the host's interface has it
};

std::string padded(std::string text, std::size_t size, char fill) {
  text.insert(0, size > text.size() ? size - text.size() : 0, fill);
  return text;
}

refhost::RecordFields fields_of(std::size_t number) {
  refhost::RecordFields fields;
  fields.poid = padded(std::to_string(number), 64, 'a');
  fields.content_fp = padded(std::to_string(number), 64, 'b');
  fields.size = 1000 + number;
  fields.mode = 0100644;
  fields.owner = std::string(number % 60, 'o');
  fields.mtime = fields.ctime = fields.atime = 1700000000 + number;
  return fields;
}

}  // namespace

std::vector<Row> make_rows(std::size_t count, std::size_t first) {
  std::vector<Row> rows;
  rows.reserve(count);
  const PORecord record(POCreate());
  for (std::size_t number = first; number < first + count; ++number) {
    const refhost::RecordFields fields = fields_of(number);
    refhost::set_fields(record.get(), fields);
    const std::unique_ptr<char, Release> content(POToStringMalloced(record.get()));
    rows.push_back({"file-" + padded(std::to_string(number), 35, '0'), fields.poid, content.get()});
  }
  return rows;
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

ScratchDir::ScratchDir() : path_(std::filesystem::temp_directory_path() / "pocatalog-XXXXXX") {
  must(mkdtemp(path_.data()) == nullptr, "mkdtemp");
}

ScratchDir::~ScratchDir() {
  std::error_code ignored;
  std::filesystem::remove_all(path_, ignored);
}

BareDatabase::BareDatabase(const std::string& file) {
  must(static_cast<unsigned long>(sqlite3_open(file.c_str(), &db_)), file.c_str());
}

BareDatabase::~BareDatabase() { sqlite3_close(db_); }

void BareDatabase::exec(const std::string& sql, sqlite3_callback row, void* context) {
  must(static_cast<unsigned long>(sqlite3_exec(db_, sql.c_str(), row, context, nullptr)),
       sql.c_str());
}

std::string insert_text(const Row& row) {
  std::uint32_t crc = base::kAdler32Start;
  for (const std::string* text : {&row.basename, &row.poid, &row.content}) {
    crc = base::adler32(crc, text->data(), text->size());
  }
  return "INSERT OR REPLACE INTO po VALUES ('" + row.basename + "', '" + row.poid + "', '" +
         row.content + "', " + std::to_string(crc) + ")";
}

void must(unsigned long status, const char* what) {
  if (status == 0) return;
  std::fprintf(stderr, "pocatalog-bench: %s failed with %lu\n", what, status);
  std::exit(1);
}

}  // namespace bench
