// Runs one target on every file of the directories that are named, without libFuzzer.
#include <csignal>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>

#include "fuzz/property.h"

namespace {

// A copy of exactly this size: the address sanitizer sees whoever reads past its end.
void run(const std::string& bytes) {
  const auto copy = std::make_unique<std::uint8_t[]>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), copy.get());
  LLVMFuzzerTestOneInput(copy.get(), bytes.size());
}

std::size_t replay(const std::string& directory) {
  std::size_t count = 0;
  for (const auto& file : std::filesystem::directory_iterator(directory)) {
    std::ifstream in(file.path(), std::ios::binary);
    std::fprintf(stderr, "%s\n", file.path().c_str());
    run({std::istreambuf_iterator<char>(in), {}});
    ++count;
  }
  return count;
}

}  // namespace

int main(int argc, char** argv) {
  // An exit status, which a test that must fail can tell from a crash.
  std::signal(SIGABRT, [](int) { _exit(EXIT_FAILURE); });
  std::size_t count = 0;
  for (int i = 1; i < argc; ++i) count += replay(argv[i]);
  run("");
  std::printf("[ figures ] %zu inputs replayed\n", count);
  return count > 0 ? EXIT_SUCCESS : EXIT_FAILURE;
}
