// A database of one kind, which is damaged and then asked: what do its users get to see?
#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/temp_dir.h"

// What came back from a damaged database.
struct Answers {
  bool refused = false;    // an operation failed: SQLite found the damage
  bool mismatch = false;   // a checksum of a row or a list did not fit
  bool absent = false;     // something that is stored was not found
  bool unchecked = false;  // a name or a number that no checksum covers was not the true one
  std::string wrong;       // an entry or a list that was not the true one
};

// The kinds of pages, as SQLite marks them.
constexpr char kIndexLeaf = 10;
constexpr char kTableLeaf = 13;

class Subject {
 public:
  virtual ~Subject() = default;

  // Asks for some rows by key and, where such a page is damaged, for everything.
  virtual Answers ask(const std::vector<std::size_t>& rows, char page_kind) = 0;
  bool verify_reports() const;

  // The rows of the table, past its indexes and past the library.
  virtual std::string raw_rows() const = 0;
  // By what a row is found in the file.
  virtual std::vector<std::string> keys(std::size_t row) const = 0;

  // Gives the rows other contents.
  virtual void change_all() = 0;

  std::string file() const { return dir_ + name_; }

 protected:
  explicit Subject(const char* name) : name_(name) {}

  const TempDir root_;
  const std::string dir_ = root_.path("5/c/p");

 private:
  const char* const name_;
};

constexpr std::size_t kRows = 500;

std::unique_ptr<Subject> make_po_subject();
std::unique_ptr<Subject> make_ul_subject();

// Columns of all rows, one after the other; an error reads as no rows do.
std::string raw_columns(const std::string& file, const std::string& sql);

// Whether `pocatalog verify` has something to say about the databases of ROOT/5/c/p.
bool verify_finds_faults(const std::string& root);

// Keeps the log, and temporary files in memory where possible.
void prepare();
// Whether a log line of the library told of a checksum since it was asked last.
bool log_told_of_checksum();
