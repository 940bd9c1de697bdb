#include "tests/crash/disk.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "tests/support/next.h"

namespace {

template <typename Result>
Result after_change(Result result) {
  if (disk_in_use != nullptr) disk_in_use->changed();
  return result;
}

std::string content_of(int fd) {
  struct stat info {};
  fstat(fd, &info);
  std::string content(static_cast<std::size_t>(info.st_size), '\0');
  EXPECT_EQ(pread(fd, content.data(), content.size(), 0), info.st_size);
  return content;
}

// What is left of a file's content.
std::string rest_of(const std::string& synced, const std::string& now, std::mt19937& random) {
  constexpr std::size_t kSector = 512;
  const auto chances = random() % 5;
  std::string content = synced;
  if (random() % 4 < chances) content.resize(now.size());
  for (std::size_t at = 0; at < now.size(); at += kSector) {
    if (random() % 4 >= chances) continue;
    const std::size_t most = random() % 8 == 0 && chances < 4 ? random() % kSector : kSector;
    const std::size_t size = std::min(most, now.size() - at);
    content.resize(std::max(content.size(), at + size));
    content.replace(at, size, now, at, size);
  }
  return content;
}

}  // namespace

void Disk::clear() {
  std::filesystem::create_directories(directory);
  for (const auto& file : std::filesystem::directory_iterator(directory)) remove(file.path());
  synced_ = {};
}

void Disk::restart_after(const Disk& failing, std::mt19937& random) {
  clear();
  Files synced = failing.synced_, now = failing.now();
  auto all = now.names;
  all.insert(synced.names.begin(), synced.names.end());
  const auto chances = random() % 5;
  for (const auto& [name, any] : all) {
    const auto& names = random() % 4 < chances ? now.names : synced.names;
    const auto file = names.find(name);
    if (file == names.end()) continue;
    const std::string& before = synced.contents[file->second];
    const std::string& after = now.contents.emplace(file->second, before).first->second;
    std::ofstream(directory + "/" + name) << rest_of(before, after, random);
  }
  synced_ = this->now();
}

void Disk::sync(int fd) {
  struct stat info {};
  fstat(fd, &info);
  if (syncs && S_ISDIR(info.st_mode)) synced_.names = now().names;
  if (syncs && S_ISREG(info.st_mode)) synced_.contents[info.st_ino] = content_of(fd);
}

Disk::Files Disk::now() const {
  Files files;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    struct stat info {};
    const int fd = open(entry.path().c_str(), O_RDONLY);
    fstat(fd, &info);
    files.names[entry.path().filename()] = info.st_ino;
    files.contents[info.st_ino] = content_of(fd);
    close(fd);
  }
  return files;
}

#pragma GCC visibility push(default)  // SQLite is a shared library
extern "C" {

ssize_t pwrite64(int fd, const void* bytes, size_t size, off64_t offset) {
  static const auto real = next(__func__, &pwrite64);
  return after_change(real(fd, bytes, size, offset));
}

int unlink(const char* path) noexcept {
  static const auto real = next(__func__, &unlink);
  return after_change(real(path));
}

int fdatasync(int fd) {
  if (disk_in_use != nullptr) disk_in_use->sync(fd);
  return after_change(0);
}

}  // extern "C"
#pragma GCC visibility pop
