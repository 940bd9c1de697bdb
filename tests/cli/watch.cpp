// Over the whole of each test: nobody closes a database beside SQLite, which would drop its locks.
#include <gtest/gtest.h>

#include "tests/faults/fault.h"

namespace {

class Watch : public testing::Environment {
  void TearDown() override { EXPECT_EQ(held()[3], 0) << "databases closed beside SQLite"; }
};
const testing::Environment* const watch = testing::AddGlobalTestEnvironment(new Watch);

}  // namespace
