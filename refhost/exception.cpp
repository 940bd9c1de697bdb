#include <new>

#include "host/status.h"

namespace {

std::string joined(const char* message, const char* extra) {
  std::string text = message == nullptr ? "" : message;
  if (extra != nullptr) text.append(": ").append(extra);
  return text;
}

// The exception is copied while it is thrown, when running out of memory would end the process: the
// text is given up instead.
void copy_or_clear(std::string& target, const std::string& source) noexcept {
  try {
    target = source;
  } catch (const std::bad_alloc&) {
    target.clear();
  }
}

}  // namespace

Cr_ErrnoException::Cr_ErrnoException(cr_status_t status, const char* message, const char* extra)
    : status_(status), text_(joined(message, extra)) {}

Cr_ErrnoException::Cr_ErrnoException(const Cr_ErrnoException& other) noexcept
    : std::exception(other), status_(other.status_) {
  copy_or_clear(text_, other.text_);
}

Cr_ErrnoException& Cr_ErrnoException::operator=(const Cr_ErrnoException& other) noexcept {
  status_ = other.status_;
  if (this != &other) copy_or_clear(text_, other.text_);
  return *this;
}

Cr_ErrnoException::~Cr_ErrnoException() = default;

const char* Cr_ErrnoException::what() const noexcept { return text_.c_str(); }

cr_status_t Cr_ErrnoException::status() const noexcept { return status_; }
