// A database of one kind, to be damaged and then asked: what do its users get to see?
#pragma once

#include <cstddef>
#include <memory>
#include <set>
#include <string>

#include "tests/support/temp_dir.h"

constexpr std::size_t kRows = 80;  // tables and indexes of several pages each

struct Answers {
  bool noticed = false;  // an operation failed or logged an error
  bool differs = false;  // something was missing, or is not stored
  std::string wrong;     // an entry or a list that was not the true one
};

class Subject {
 public:
  virtual ~Subject() = default;

  // Asks for some rows by key and for everything.
  virtual Answers ask(const std::set<std::size_t>& rows) = 0;

  // Gives all rows contents that follow from a number.
  virtual void store(std::size_t first) const = 0;

  // The rows of the table, past its indexes and past the library.
  std::string raw_rows() const;
  bool verify_reports() const;
  std::string file() const { return dir_ + name_; }

 protected:
  Subject(const char* name, const char* sql) : name_(name), sql_(sql) {}

  const TempDir root_;
  const std::string dir_ = root_.path("5/c/p");

 private:
  const char* const name_;
  const char* const sql_;
};

// By this a row can be found in the file as well.
std::string key_of(std::size_t row);
std::set<std::size_t> rows_near(std::size_t offset, const std::string& image);

std::unique_ptr<Subject> make_po_subject();
std::unique_ptr<Subject> make_ul_subject();

// Whether `pocatalog verify` has something to say about the databases of ROOT/5/c/p.
bool verify_finds_faults(const std::string& root);

// Watches the log, and keeps temporary files in memory where possible.
void prepare();
