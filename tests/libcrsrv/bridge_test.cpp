#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>

#include "libcrsrv/quillmisc.h"
#include "tests/support/child_process.h"
#include "tests/support/private_mounts.h"

namespace {

constexpr const char* kNobody = "95 95 95 95 95 0 errno=7";
constexpr const char* kProvided =
    "set -1 a b c 4\nget 2 a b c\nlist 5 a\nremove 3 a\n41 42 95 44 0 4711 errno=7";

// What a provider tells, and what the bridge answers. Listing is handed back to the bridge.
std::string calls() {
  char a[] = "a", b[] = "b", c[] = "c";
  timeval now{};
  errno = 7;
  testing::internal::CaptureStdout();
  const int answers[] = {quill_nxattr_set(-1, a, b, c, 4), quill_nxattr_get(2, a, b, c),
                         quill_nxattr_list(5, a, reinterpret_cast<void*>(&quill_nxattr_list)),
                         quill_nxattr_remove(3, a), quill_get_compclk(&now, "/m")};
  const std::string end = std::to_string(now.tv_sec) + " errno=" + std::to_string(errno);
  std::string text = testing::internal::GetCapturedStdout();
  for (const int answer : answers) text += std::to_string(answer) + " ";
  return text + end;
}

TEST(Bridge, FindsAnyLoadedProviderAndNeverItself) {
  for (const int scope : {RTLD_LOCAL, RTLD_GLOBAL}) {
    const pid_t child = start_child([scope] {
      EXPECT_EQ(calls(), kNobody);
      dlopen(PROVIDER, RTLD_NOW | scope);
      EXPECT_EQ(calls(), kProvided);
      return testing::Test::HasFailure() ? 1 : 0;
    });
    EXPECT_EQ(end_of(child), 0) << "scope " << scope;
  }
}

TEST(Bridge, UsesTheLibraryAtItsFixedPlace) {
  in_private_mounts({"/usr/lib64"}, [] {
    std::filesystem::copy_file(PROVIDER, "/usr/lib64/quillmisc.so");
    EXPECT_EQ(calls(), kProvided);
  });
}

}  // namespace
