// What the tests of entries share: allocations that fail, the log, and a directory.
#pragma once

#include "po/dir_po.h"
#include "po/file_po.h"
#include "tests/support/failing_new.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

// After so many, one allocation of this program fails; negative: none does.
inline long allocations_left = -1;

inline cr_status_t& cell() { return *__cr_errno_location(); }

class EntryTest : public testing::Test {
 protected:
  EntryTest() {
    allocation_fails = [] { return allocations_left >= 0 && allocations_left-- == 0; };
  }
  void TearDown() override {
    for (const PO* old : removed) delete old;
  }

  const TempDir root;
  LogCapture log;
  ds_info_t info = {100, 10, 10};
  std::vector<PO*> removed, udcid;
  std::string action;
};
