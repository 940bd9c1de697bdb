#include "libcrsrv/common.h"

#include <gtest/gtest.h>
#include <sched.h>

#include <atomic>
#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

TEST(Modes, HaveTextsForSingleBitsOnly) {
  EXPECT_STREQ(SDModeToString(0x10), "stopped");
  EXPECT_STREQ(SDModeToStatString(0x10), "SHUTDOWN");
  EXPECT_STREQ(SDModeToString(0x800), "task cleanup");
  EXPECT_STREQ(SDModeToStatString(0x2000000), "FATAL");
  for (const int mode : {0, 0x18, 0x80, -1}) {
    EXPECT_STREQ(SDModeToString(mode), "unknown") << mode;
    EXPECT_STREQ(SDModeToStatString(mode), "unknown") << mode;
  }
}

struct Seen {
  std::size_t stack_size;
  int detach_state;
};

void* look(void* out) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  auto* seen = static_cast<Seen*>(out);
  pthread_attr_getstacksize(&attributes, &seen->stack_size);
  pthread_attr_getdetachstate(&attributes, &seen->detach_state);
  pthread_attr_destroy(&attributes);
  return out;
}

Seen joined_thread(std::size_t stack_size, int detached) {
  pthread_t thread{};
  Seen seen{};
  EXPECT_EQ(SDThreadCreate(&thread, look, &seen, stack_size, detached), 0);
  void* result = nullptr;
  EXPECT_EQ(pthread_join(thread, &result), 0);
  EXPECT_EQ(result, &seen);
  return seen;
}

TEST(Threads, AreJoinableUnlessDetachedIsExactlyOne) {
  for (const int detached : {0, 2, -1}) {
    EXPECT_EQ(joined_thread(0, detached).detach_state, PTHREAD_CREATE_JOINABLE) << detached;
  }
  const auto start = [](void* out) -> void* {
    static_cast<std::atomic<int>*>(out)->store(1);
    return nullptr;
  };
  static std::atomic<int> ran;  // may outlive the test, as the thread may
  pthread_t thread{};
  ASSERT_EQ(SDThreadCreate(&thread, start, &ran, 0, 1), 0);
  while (ran == 0) sched_yield();
}

TEST(Threads, GetTheStackTheyAskForOrTheDefault) {
  // From the smallest to the largest: the system hands larger stacks out again.
  const std::size_t standard = joined_thread(0, 0).stack_size;
  EXPECT_EQ(joined_thread(1, 0).stack_size, standard);
  EXPECT_EQ(joined_thread(2 * standard, 0).stack_size, 2 * standard);
}

TEST(CatalogPaths, HoldADatabaseOrLieThreeLevelsBelowTheCatalog) {
  const TempDir dir;
  for (const char* path :
       {"catalog/A/B/C/D", "a/catalog/x/catalog/A/B/C", "catalogs/A/B/C", "db"}) {
    fs::create_directories(dir.path(path));
  }
  std::ofstream(dir.path("db/po.db")) << "x";
  const struct {
    const char* path;
    bool expected;
  } cases[] = {{"catalog/A/B/C", true},
               {"catalog/A/B/C/", true},
               {"catalog/A/B/C//", false},
               {"catalog/A/B", false},
               {"catalog/A/B/C/D", false},
               {"catalog/A/B/missing", false},
               {"a/catalog/x/catalog/A/B/C", true},
               {"a/catalog/x/catalog/A", false},
               {"catalogs/A/B/C", false},
               {"db", true}};
  for (const auto& c : cases) EXPECT_EQ(IsPodbPath(dir.path(c.path)), c.expected) << c.path;
}

}  // namespace
