// TempDir: a fresh directory for one test, removed with all that it holds at the end.
#pragma once

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <system_error>

class TempDir {
 public:
  // Below the system's directory for such things, spelled without symbolic links.
  TempDir() {
    if (mkdtemp(path_.data()) == nullptr) throw std::runtime_error("cannot make " + path_);
  }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  ~TempDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  const std::string& path() const { return path_; }

  // The path of a name inside; nothing is made.
  std::string path(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_ =
      std::filesystem::canonical(std::filesystem::temp_directory_path()) / "pocatalog-XXXXXX";
};
