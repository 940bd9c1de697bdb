#include <atomic>
#include <cstring>

#include "host/files.h"
#include "refhost/control.h"

namespace {

std::atomic<bool> case_sensitive{true};

// Bytes outside ASCII stay: names carry no encoding that would say which letters they are.
char converted(char c, CASE_DIR direction) {
  if (direction == CASE_DIR_LOWER && c >= 'A' && c <= 'Z') return static_cast<char>(c - 'A' + 'a');
  if (direction == CASE_DIR_UPPER && c >= 'a' && c <= 'z') return static_cast<char>(c - 'a' + 'A');
  return c;
}

}  // namespace

void refhost::set_case_sensitive(bool sensitive) { case_sensitive = sensitive; }

bool OSIsCaseSensitive() { return case_sensitive; }

void ConvertStringCase(std::string& text, CASE_DIR direction) {
  for (char& c : text) c = converted(c, direction);
}

std::string getdirname(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? std::string() : path.substr(0, slash);
}

std::string getbasename(const std::string& path) {
  return path.substr(path.rfind('/') + 1);  // npos + 1 is 0: no slash, the whole path
}

std::size_t zelstrcpy(char* target, const char* source, std::size_t size) {
  const std::size_t length = std::strlen(source);
  if (size == 0) return length;
  const std::size_t copied = length < size ? length : size - 1;
  std::memcpy(target, source, copied);
  target[copied] = '\0';
  return length;
}
