#include "tests/limits/watch.h"

#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <mutex>
#include <utility>

namespace {

using FileId = std::pair<dev_t, ino_t>;

// Never destroyed: descriptors are closed until the very end.
struct State {
  std::mutex mutex;
  std::map<int, FileId> of_sqlite;  // by descriptor
  std::vector<std::string> closed;
  long opened = 0;
  long closed_by_others = 0;
};
State& state() {
  static auto* const kept = new State;
  return *kept;
}

FileId id_of(int file) {
  struct stat found {};
  const bool regular = fstat(file, &found) == 0 && S_ISREG(found.st_mode);
  return regular ? FileId{found.st_dev, found.st_ino} : FileId{};
}

int open_for_sqlite(const char* path, int flags, int mode) {
  constexpr int kHere = -100;  // the working directory, as the kernel calls it
  const auto file = static_cast<int>(syscall(SYS_openat, kHere, path, flags, mode));
  const std::lock_guard<std::mutex> lock(state().mutex);
  ++state().opened;
  if (file >= 0) state().of_sqlite[file] = id_of(file);
  return file;
}

int close_for_sqlite(int file) {
  const std::lock_guard<std::mutex> lock(state().mutex);
  state().of_sqlite.erase(file);
  return static_cast<int>(syscall(SYS_close, file));
}

void before_close(int file) {
  const FileId id = id_of(file);
  if (id == FileId{}) return;
  const std::lock_guard<std::mutex> lock(state().mutex);
  ++state().closed_by_others;
  for (const auto& [descriptor, open_id] : state().of_sqlite) {
    if (open_id != id) continue;
    std::error_code unknown;
    const std::string link = "/proc/self/fd/" + std::to_string(file);
    state().closed.push_back(std::filesystem::read_symlink(link, unknown));
    return;
  }
}

class Watch : public testing::Environment {
  void SetUp() override {
    sqlite3_initialize();
    sqlite3_vfs* const vfs = sqlite3_vfs_find(nullptr);
    vfs->xSetSystemCall(vfs, "open", reinterpret_cast<sqlite3_syscall_ptr>(open_for_sqlite));
    vfs->xSetSystemCall(vfs, "close", reinterpret_cast<sqlite3_syscall_ptr>(close_for_sqlite));
  }
  void TearDown() override {
    std::printf("[ figures ] files: %ld opened by SQLite, %ld closed by others\n", state().opened,
                state().closed_by_others);
    for (const std::string& path : closed_beside_sqlite()) {
      ADD_FAILURE() << path << " was closed while SQLite had it open";
    }
  }
};
const auto* const registered = testing::AddGlobalTestEnvironment(new Watch);

}  // namespace

// These take the place of the system's own for everybody but SQLite, in other libraries too.
extern "C" __attribute__((visibility("default"))) int close(int file) {
  before_close(file);
  return static_cast<int>(syscall(SYS_close, file));
}

extern "C" __attribute__((visibility("default"))) int fclose(FILE* stream) {
  static const auto real = reinterpret_cast<decltype(&fclose)>(dlsym(RTLD_NEXT, "fclose"));
  before_close(fileno(stream));
  return real(stream);
}

std::vector<std::string> closed_beside_sqlite() {
  const std::lock_guard<std::mutex> lock(state().mutex);
  return std::exchange(state().closed, {});
}

long opened_by_sqlite() { return state().opened; }
