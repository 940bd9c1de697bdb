#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <vector>

#include "libcrsrv/quillmisc.h"
#include "tests/support/private_mounts.h"

namespace {

using Answers = std::vector<long>;

const Answers kNobody = {95, 95, 95, 95, 95, 0, 7};
const Answers kProvided = {54321, 4321, 1095, 21, 0, 4711, 7};  // listing came back to the bridge

// Of each function; then the time, and `errno`, which was 7.
Answers answers() {
  int a = 2, b = 3, c = 4;
  timeval now{};
  errno = 7;
  Answers all = {quill_nxattr_set(1, &a, &b, &c, 5), quill_nxattr_get(1, &a, &b, &c),
                 quill_nxattr_list(1, &a, reinterpret_cast<void*>(&quill_nxattr_list)),
                 quill_nxattr_remove(1, &a), quill_get_compclk(&now, "/m")};
  all.insert(all.end(), {now.tv_sec, errno});
  return all;
}

TEST(Bridge, FindsAnyLoadedProviderAndNeverItself) {
  for (const int scope : {RTLD_LOCAL, RTLD_GLOBAL}) {
    const pid_t child = start_child([scope]() -> int {
      EXPECT_EQ(answers(), kNobody);
      dlopen(PROVIDER, RTLD_NOW | scope);
      EXPECT_EQ(answers(), kProvided);
      std::exit(int{testing::Test::HasFailure()});  // counted lines are kept
    });
    EXPECT_EQ(end_of(child), 0) << "scope " << scope;
  }
}

TEST(Bridge, UsesTheLibraryAtItsFixedPlace) {
  in_private_mounts({"/usr/lib64"}, [] {
    std::filesystem::copy_file(PROVIDER, "/usr/lib64/quillmisc.so");
    EXPECT_EQ(answers(), kProvided);
  });
}

}  // namespace
