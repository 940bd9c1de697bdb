#include "tests/damage/subject.h"

#include <sqlite3.h>
#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <utility>

#include "cli/verify_database.h"
#include "refhost/control.h"

namespace {
bool told = false;
}  // namespace

std::string raw_columns(const std::string& file, const std::string& sql) {
  std::string all;
  sqlite3* db = nullptr;
  sqlite3_stmt* rows = nullptr;
  int rc = sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  if (rc == SQLITE_OK) rc = sqlite3_prepare_v2(db, sql.c_str(), -1, &rows, nullptr);
  while (rc == SQLITE_OK || rc == SQLITE_ROW) {
    rc = sqlite3_step(rows);
    for (int i = 0; rc == SQLITE_ROW && i < sqlite3_column_count(rows); ++i) {
      const auto* bytes = static_cast<const char*>(sqlite3_column_blob(rows, i));
      const auto size = static_cast<std::size_t>(sqlite3_column_bytes(rows, i));
      all += std::to_string(size) + ":" + (bytes != nullptr ? std::string(bytes, size) : "NULL");
    }
  }
  sqlite3_finalize(rows);
  sqlite3_close(db);
  return rc == SQLITE_DONE ? all : "an error after " + all;
}

bool verify_finds_faults(const std::string& root) {
  std::ostringstream out;
  const cli::Console console{out, out};
  cli::Findings findings(console);
  cli::Look look(false);
  const cli::CatalogPath directory{root, {"5", "c", "p"}};
  verify_entries(cli::open_entries(directory, &look), &findings);
  verify_lists(cli::open_lists(directory, &look), &findings);
  return !look.found_nothing() || findings.exit_status() != cli::kDone;
}

void prepare() {
  if (access("/dev/shm", W_OK) == 0) setenv("TMPDIR", "/dev/shm", 1);
  refhost::log_to_sink([](const refhost::LogLine& line) {
    for (const char* part : {"CRC mismatch", "bad PO record", "Deserialize", "is corrupt."}) {
      told = told || line.message.find(part) != std::string::npos;
    }
  });
  refhost::set_log_level(refhost::LogLevel::Error);
}

bool log_told_of_checksum() { return std::exchange(told, false); }
