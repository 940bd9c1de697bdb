#include <gtest/gtest.h>

#include <array>
#include <filesystem>
#include <memory>

#include "tests/support/private_mounts.h"
#include "tests/support/temp_dir.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kNobody = "95\n95\n95\n95\n95 0 errno=7\n";
constexpr const char* kListed = "95\n95\nlist 5 0x6 0x7\n43\n95\n95 0 errno=7\n";
constexpr const char* kProvided =
    "set -1 0x1 (nil) 0x3 4\n41\nget 2 0x5 (nil) 0x7\n42\n95\nremove 3 0x9\n44\n0 4711 errno=7\n";

// What a program that uses the real library says.
std::string output_of(const std::string& program, const std::string& opened = "") {
  const std::string command = PROGRAMS "/" + program + " " + opened + " " POCATALOG;
  const std::unique_ptr<FILE, int (*)(FILE*)> pipe(popen(command.c_str(), "r"), &pclose);
  std::string text;
  for (int c = 0; pipe && (c = std::fgetc(pipe.get())) != EOF;) text += static_cast<char>(c);
  return text;
}

TEST(Bridge, FindsAProviderWhereverItIsAndNeverItself) {
  const std::array<const char*, 3> cases[] = {
      // a program, what it opens, its output
      {"bridge_linked", "", kNobody},
      {"bridge_linked", "g:" PROVIDER, kProvided},
      {"bridge_before", "", kProvided},
      {"bridge_after", "", kProvided},
      {"bridge_stubs", "", kNobody},
      {"bridge_stubs", "g:" PROVIDER, kProvided},
      {"bridge_opener", "l:" POCATALOG, kNobody},
      {"bridge_opener", "l:" POCATALOG " g:" PROVIDER, kProvided},
      {"bridge_opener", "g:" PROVIDER " l:" POCATALOG, kProvided},
      {"bridge_opener", "g:" POCATALOG " g:" PROVIDER, kProvided},
      {"bridge_linked", "g:" WAY_BACK, kListed},
      {"bridge_poor", "", kNobody},
  };
  for (const auto& [program, opened, output] : cases) {
    EXPECT_EQ(output_of(program, opened), output) << program << " " << opened;
  }
}

// The loader's own link stays in the directory, or no program would start.
TEST(Bridge, PrefersTheLibraryAtItsFixedPlace) {
  const TempDir dir;
  in_private_mounts({}, [&] {
    for (const auto& entry : fs::directory_iterator("/usr/lib64")) {
      fs::create_symlink(fs::canonical(entry), dir.path(entry.path().filename()));
    }
    fs::copy_file(PROVIDER, dir.path("quillmisc.so"));
    ASSERT_EQ(mount(dir.path().c_str(), "/usr/lib64", nullptr, MS_BIND, nullptr), 0);
    EXPECT_EQ(output_of("bridge_linked"), kProvided);
    EXPECT_EQ(output_of("bridge_opener", "g:" WAY_BACK " l:" POCATALOG), kProvided);
  });
}

}  // namespace
