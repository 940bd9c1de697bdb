// A file descriptor that closes itself.
#pragma once

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace refhost {

// Restores `errno` at the end of a scope, for clean-up that must not hide the reason of a failure.
class ErrnoKeeper {
 public:
  ErrnoKeeper() : saved_(errno) {}
  ErrnoKeeper(const ErrnoKeeper&) = delete;
  ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;
  ~ErrnoKeeper() { errno = saved_; }

 private:
  int saved_;
};

// Owns an open descriptor, or none. Closing leaves `errno` alone.
class Fd {
 public:
  explicit Fd(int fd = -1) : fd_(fd) {}
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
  }
  Fd(const Fd&) = delete;
  Fd& operator=(const Fd&) = delete;
  ~Fd() {
    if (fd_ < 0) return;
    ErrnoKeeper keeper;
    close(fd_);
  }

  explicit operator bool() const { return fd_ >= 0; }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }

 private:
  int fd_;
};

// Makes the names in an open directory survive a crash. False, with `errno`, only when the disk
// failed: a file system that cannot sync directories has nothing better to offer.
bool sync_directory(int directory);

}  // namespace refhost
