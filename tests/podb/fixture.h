// The store of the catalog directory 5/c/p, and its file seen from outside.
#pragma once

#include "po/file_po.h"
#include "refhost/control.h"
#include "tests/support/files.h"
#include "tests/support/log_capture.h"
#include "tests/support/raw_database.h"
#include "tests/support/records.h"
#include "tests/support/spy_podb.h"
#include "tests/support/temp_dir.h"

using Names = std::vector<std::string>;

inline Names names_of(const POQueue& entries) {
  Names names;
  for (const auto& entry : entries) names.emplace_back(POGetBasename(entry->record()));
  return names;
}

class StoreTest : public testing::Test {
 protected:
  void TearDown() override { refhost::set_case_sensitive(true); }

  cr_status_t put(const std::string& leaf, const std::string& poid = "", std::uint64_t size = 0) {
    FilePO entry(file_text(leaf, poid, size, "/c/p"));
    return db.put(&entry);
  }
  cr_status_t get(const std::string& leaf) {
    FilePO entry(5);
    return db.get(leaf, &entry);
  }
  void start_afresh(bool case_sensitive) {
    refhost::set_case_sensitive(case_sensitive);
    db.close_db(0);
    std::filesystem::remove(file);
  }
  RawRows sql(const std::string& text) const { return raw_sql(file, text); }

  const TempDir root;
  const std::string dir = root.path("5/c/p"), file = dir + "/po.db";
  LogCapture log;
  SpyPODB db{root.path(), dir};
};
