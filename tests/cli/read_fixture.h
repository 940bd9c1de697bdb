// A catalog made by the library, and the command run on it in this process.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "cli/catalog.h"
#include "cli/command.h"
#include "cli/run.h"
#include "po/dir_po.h"
#include "po/file_po.h"
#include "podb/sqlite_podb.h"
#include "refhost/control.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

struct Outcome {
  int status;
  std::string out;
  std::string err;

  // The lines of `out`, each a JSON object.
  std::vector<nlohmann::json> json() const {
    std::vector<nlohmann::json> objects;
    std::istringstream lines(out);
    for (std::string line; std::getline(lines, line);) {
      objects.push_back(nlohmann::json::parse(line));
    }
    return objects;
  }
};

inline Outcome run_command(std::vector<std::string> arguments) {
  arguments.insert(arguments.begin(), "pocatalog");
  std::vector<const char*> argv;
  argv.reserve(arguments.size());
  for (const std::string& argument : arguments) argv.push_back(argument.c_str());
  std::ostringstream out;
  std::ostringstream err;
  const int status = cli::run(static_cast<int>(argv.size()), argv.data(), out, err);
  return {status, out.str(), err.str()};
}

// The image 5/client/policy, whose directory exists.
class CatalogTest : public testing::Test {
 protected:
  const TempDir temp_;
  const std::string root_ = temp_.path();
  const std::string image_ = "5/client/policy";

  CatalogTest() {
    refhost::log_to_sink([](const refhost::LogLine&) {});
    add_directory(image_);
  }
  void TearDown() override { refhost::log_to_stderr(); }

  std::string full(const std::string& inner) const { return root_ + "/" + inner; }
  std::string database(const std::string& inner) const { return full(inner) + "/po.db"; }

  void add_directory(const std::string& inner, std::uint32_t special_flags = 0) {
    DirPO entry(root_, full(inner), 5);
    refhost::RecordFields fields = refhost::get_fields(entry.record());
    fields.type = PO_TYPE_DIR;
    fields.mode = 040755;
    fields.special_flags = special_flags;
    ASSERT_EQ(refhost::set_fields(entry.record(), fields), 0);
    ASSERT_EQ(entry.save(full(inner)), 0U);
  }

  // Stores a row in the image's directory; `fields` need no location.
  void add_file(const std::string& name, refhost::RecordFields fields = file_fields("x")) {
    fields.directory = "/client/policy";
    fields.leaf = name;
    FilePO entry(5);
    ASSERT_EQ(refhost::set_fields(entry.record(), fields), 0);
    SQLitePODB db(root_, full(image_));
    ASSERT_EQ(entry.save(&db, full(image_) + "/" + name), 0U);
  }

  // Runs SQL on the image's database, past the library; the first value of the last row.
  std::string sql(const std::string& statements) {
    sqlite3* db = nullptr;
    EXPECT_EQ(sqlite3_open(database(image_).c_str(), &db), SQLITE_OK);
    const std::unique_ptr<sqlite3, decltype(&sqlite3_close)> closed(db, &sqlite3_close);
    std::string value;
    const auto keep = [](void* out, int, char** values, char**) {
      *static_cast<std::string*>(out) = values[0] == nullptr ? "NULL" : values[0];
      return 0;
    };
    EXPECT_EQ(sqlite3_exec(db, statements.c_str(), keep, &value, nullptr), SQLITE_OK)
        << statements << ": " << sqlite3_errmsg(db);
    return value;
  }

  Outcome verify() const { return run_command({"--json", "verify", root_}); }
};
