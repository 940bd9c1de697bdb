#include "cli/source_file.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdint>
#include <system_error>

namespace cli {
namespace {

constexpr std::size_t kBufferSize = std::size_t{128} * 1024;
constexpr int kReadings = 3;

std::string reason(const char* text) {
  return std::string(text) + ": " + std::generic_category().message(errno);
}

bool same_time(const timespec& a, const timespec& b) {
  return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

}  // namespace

FileReader::FileReader(const std::atomic<bool>& stop, Progress& progress)
    : stop_(stop), progress_(progress), buffer_(kBufferSize) {}

bool FileReader::read(int directory, const std::string& name, bool with_content, SourceFile* file,
                      std::string* why) {
  if (!with_content) return look(directory, name, file, why);
  // Not blocking: what was a file when the directory was read may be a pipe by now.
  const refhost::Fd opened(
      openat(directory, name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!opened) {
    *why = reason("cannot be opened");
    return false;
  }
  for (int reading = 0; reading < kReadings; ++reading) {
    const Attempt attempt = hash(opened, file, why);
    if (attempt != Attempt::changed) return attempt == Attempt::done;
  }
  *why = "is written to while it is read";
  return false;
}

bool FileReader::look(int directory, const std::string& name, SourceFile* file,
                      std::string* why) const {
  if (fstatat(directory, name.c_str(), &file->attributes, AT_SYMLINK_NOFOLLOW) != 0) {
    *why = reason("cannot be examined");
    return false;
  }
  *why = "is no regular file any more";
  return S_ISREG(file->attributes.st_mode);
}

FileReader::Attempt FileReader::hash(const refhost::Fd& opened, SourceFile* file,
                                     std::string* why) {
  struct stat after {};
  off_t length = 0;
  *why = "is no regular file any more";
  if (fstat(opened.get(), &file->attributes) != 0) return Attempt::failed;
  if (!S_ISREG(file->attributes.st_mode)) return Attempt::failed;
  if (!feed(opened, &length) || fstat(opened.get(), &after) != 0) {
    *why = reason("cannot be read");
    return Attempt::failed;
  }
  const struct stat& before = file->attributes;
  if (before.st_size != after.st_size || !same_time(before.st_mtim, after.st_mtim) ||
      length != before.st_size) {
    return Attempt::changed;
  }
  file->content = hash_.finish();
  return Attempt::done;
}

bool FileReader::feed(const refhost::Fd& opened, off_t* length) {
  hash_.start();
  while (!stop_) {
    const ssize_t count = pread(opened.get(), buffer_.data(), buffer_.size(), *length);
    if (count == 0) return true;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    hash_.add(buffer_.data(), static_cast<std::size_t>(count));
    *length += count;
    progress_.bytes(static_cast<std::uint64_t>(count));
  }
  errno = EINTR;
  return false;
}

}  // namespace cli
