#include "cli/source_file.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <new>
#include <stdexcept>
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

void require(int result) {
  if (result != 1) throw std::runtime_error("SHA-256 is not available");
}

}  // namespace

void FileReader::FreeDigest::operator()(EVP_MD_CTX* digest) const { EVP_MD_CTX_free(digest); }

FileReader::FileReader(const std::atomic<bool>& stop)
    : stop_(stop), digest_(EVP_MD_CTX_new()), buffer_(kBufferSize) {
  if (!digest_) throw std::bad_alloc();
}

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
  posix_fadvise(opened.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
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
  file->poid = length == 0 ? "" : finish();
  return Attempt::done;
}

bool FileReader::feed(const refhost::Fd& opened, off_t* length) {
  require(EVP_DigestInit_ex(digest_.get(), EVP_sha256(), nullptr));
  while (!stop_) {
    const ssize_t count = pread(opened.get(), buffer_.data(), buffer_.size(), *length);
    if (count == 0) return true;
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return false;
    require(EVP_DigestUpdate(digest_.get(), buffer_.data(), static_cast<std::size_t>(count)));
    *length += count;
  }
  errno = EINTR;
  return false;
}

std::string FileReader::finish() {
  std::array<unsigned char, EVP_MAX_MD_SIZE> bytes{};
  unsigned int length = 0;
  require(EVP_DigestFinal_ex(digest_.get(), bytes.data(), &length));
  std::string text;
  for (unsigned int i = 0; i < length; ++i) text += fmt::format("{:02x}", bytes[i]);
  return text;
}

}  // namespace cli
