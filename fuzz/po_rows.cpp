// A sound database of rows with any contents and right checksums: what lies behind the checksum.
#include <sqlite3.h>

#include <filesystem>

#include "fuzz/po_questions.h"
#include "fuzz/property.h"
#include "podb/sqlite_podb.h"

namespace {

void bind_value(sqlite3_stmt* row, int column, const std::string& text, unsigned int kind) {
  const int size = static_cast<int>(text.size());
  switch (kind % 8) {
    case 0:
      return void(sqlite3_bind_null(row, column));
    case 1:
      return void(sqlite3_bind_blob(row, column, text.data(), size, SQLITE_TRANSIENT));
    case 2:
      return void(sqlite3_bind_double(row, column, std::strtod(text.c_str(), nullptr)));
    default:
      return void(sqlite3_bind_text(row, column, text.data(), size, SQLITE_TRANSIENT));
  }
}

// A row is a byte that says what its columns are, and its name, POID and content, which end at a
// line's end each.
void add_row(sqlite3_stmt* insert, Input& input) {
  const unsigned int kinds = input.byte();
  std::string texts[3];
  for (std::string& text : texts) text = input.text('\n');
  const bool all_texts = kinds >= 64;
  for (int i = 0; i < 3; ++i) {
    bind_value(insert, i + 1, texts[i], all_texts ? 3U : kinds >> (2 * i));
  }
  sqlite3_bind_int64(
      insert, 4, SQLitePODB::calculate_crc(texts[0].c_str(), texts[1].c_str(), texts[2].c_str()));
  sqlite3_step(insert);
  sqlite3_reset(insert);
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::filesystem::remove(po_file());
  SQLitePODB(scratch(), po_directory()).init_db();
  Input input(data, size);
  sqlite3* db = nullptr;
  sqlite3_stmt* insert = nullptr;
  sqlite3_open(po_file().c_str(), &db);
  sqlite3_exec(db, "PRAGMA synchronous = OFF; BEGIN", nullptr, nullptr, nullptr);
  sqlite3_prepare_v2(db, "INSERT OR REPLACE INTO po VALUES (?, ?, ?, ?)", -1, &insert, nullptr);
  for (int row = 0; row < 8 && !input.at_end(); ++row) add_row(insert, input);
  sqlite3_finalize(insert);
  sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
  sqlite3_close(db);
  ask_everything();
  return 0;
}
