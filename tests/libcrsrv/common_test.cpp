#include "libcrsrv/common.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
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

void* stack_size_of_thread(void* out) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(out));
  pthread_attr_destroy(&attributes);
  return out;
}

// From the smallest stack to the largest: the system hands larger ones out again.
TEST(Threads, AreJoinableUnlessDetachedIsExactlyOneAndGetTheirStack) {
  std::size_t standard = 0;
  std::size_t size = 0;
  const auto run = [&size](std::size_t wanted, int detached) {
    pthread_t thread{};
    EXPECT_EQ(SDThreadCreate(&thread, stack_size_of_thread, &size, wanted, detached), 0);
    EXPECT_EQ(pthread_join(thread, nullptr), 0) << detached;
  };
  run(0, 2);
  standard = size;
  run(1, -1);  // less than the system grants
  EXPECT_EQ(size, standard);
  run(2 * standard, 0);
  EXPECT_EQ(size, 2 * standard);
  pthread_t thread{};
  const auto wait = [](void*) -> void* { return pause(), nullptr; };
  ASSERT_EQ(SDThreadCreate(&thread, wait, nullptr, 0, 1), 0);
  EXPECT_EQ(pthread_join(thread, nullptr), EINVAL);
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
