#include "libcrsrv/common.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <fstream>

#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

void* stack_size_of_thread(void* out) {
  pthread_attr_t attributes;
  pthread_getattr_np(pthread_self(), &attributes);
  pthread_attr_getstacksize(&attributes, static_cast<std::size_t*>(out));
  pthread_attr_destroy(&attributes);
  return out;
}

TEST(Threads, AreJoinableUnlessDetachedIsExactlyOneAndGetTheirStack) {
  constexpr std::size_t kLarge = 64 << 20;
  std::size_t size = 0;
  pthread_t thread{};
  EXPECT_EQ(SDThreadCreate(&thread, stack_size_of_thread, &size, kLarge, 2), 0);
  EXPECT_EQ(pthread_join(thread, nullptr), 0);
  EXPECT_EQ(size, kLarge);
  const auto wait = [](void*) -> void* { return pause(), nullptr; };
  ASSERT_EQ(SDThreadCreate(&thread, wait, nullptr, 1, 1), 0) << "less than the system grants";
  EXPECT_EQ(pthread_join(thread, nullptr), EINVAL);
}

TEST(Modes, AreOneBitEachWithTextsOfTheirOwnForLogsAndStatus) {
  for (const std::int32_t none : {0, 0x18, 0x80, 0x4000000, -1}) {
    EXPECT_STREQ(SDModeToString(none), "unknown") << none;
    EXPECT_STREQ(SDModeToStatString(none), "unknown") << none;
  }
  EXPECT_STREQ(SDModeToString(0x10), "stopped");
  EXPECT_STREQ(SDModeToStatString(0x10), "SHUTDOWN");
  EXPECT_STREQ(SDModeToString(0x800), "task cleanup");
  EXPECT_STREQ(SDModeToStatString(0x800), "REAP_CHILDS");
}

TEST(CatalogPaths, HoldADatabaseOrLieThreeLevelsBelowTheCatalog) {
  const TempDir dir;
  for (const char* path : {"a/catalog/x/catalog/A/B/C/D", "catalogs/A/B/C", "db"}) {
    fs::create_directories(dir.path(path));
  }
  std::ofstream(dir.path("db/po.db")) << "x";
  const std::pair<const char*, bool> cases[] = {{"a/catalog/x/catalog/A/B/C", true},
                                                {"a/catalog/x/catalog/A/B/C/", true},
                                                {"a/catalog/x/catalog/A/B/C//", false},
                                                {"a/catalog/x/catalog/A/B", false},
                                                {"a/catalog/x/catalog/A/B/C/D", false},
                                                {"a/catalog/x/catalog/A/B/missing", false},
                                                {"a/catalog/x/catalog/A", false},
                                                {"catalogs/A/B/C", false},
                                                {"db", true}};
  for (const auto& [path, expected] : cases)
    EXPECT_EQ(IsPodbPath(dir.path(path)), expected) << path;
  std::string id = "x";
  std::string image = "y";
  EXPECT_EQ(basename2backupid("", id, image), 0);
  EXPECT_EQ(id + image, "");
}

}  // namespace
