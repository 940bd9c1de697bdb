#include "tests/damage/subject.h"

#include <unistd.h>

#include <cstdlib>
#include <sstream>
#include <utility>

#include "cli/verify_database.h"
#include "refhost/control.h"
#include "tests/support/intact.h"

namespace {
bool told = false;
}  // namespace

std::string raw_columns(const std::string& file, const std::string& sql) {
  std::string all;
  intact::Faults faults;
  sqlite3* db = nullptr;
  sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr);
  intact::each_row(db, sql, faults, [&all](sqlite3_stmt* row) {
    for (int i = 0; i < sqlite3_column_count(row); ++i) {
      const std::string value = intact::text(row, i);
      all += std::to_string(value.size()) + ":" + value;
    }
  });
  sqlite3_close(db);
  return faults.empty() ? all : "an error after " + all;
}

bool Subject::verify_reports() const { return verify_finds_faults(root_.path()); }

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
