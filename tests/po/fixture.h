// What the tests of entries share: host calls and allocations that fail, and the log.
#pragma once

#include "po/dir_po.h"
#include "po/file_po.h"
#include "tests/support/log_capture.h"
#include "tests/support/records.h"
#include "tests/support/temp_dir.h"

// This program defines the functions concerned, so its definitions are called.
namespace hooks {
inline bool no_records = false;     // POCreate answers null
inline long allocations_left = -1;  // after so many, one allocation fails; negative: none does
}  // namespace hooks

inline cr_status_t& cell() { return *__cr_errno_location(); }

class EntryTest : public testing::Test {
 protected:
  void SetUp() override { cell() = CR_STATUS_OK; }
  void TearDown() override { hooks::no_records = false; }

  const TempDir root;
  LogCapture log;
};
