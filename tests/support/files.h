// Whole files and trees of them.
#pragma once

#include <filesystem>
#include <fstream>
#include <map>

inline std::string read_file(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}

// Makes the directories that are missing.
inline void write_file(const std::string& path, const std::string& content) {
  std::filesystem::create_directories(std::filesystem::path(path).parent_path());
  std::ofstream(path, std::ios::binary) << content;
}

// Everything below a directory, files with their bytes.
inline std::map<std::string, std::string> snapshot(const std::string& directory) {
  std::map<std::string, std::string> found;
  for (const auto& entry : std::filesystem::recursive_directory_iterator(directory)) {
    found[entry.path()] = entry.is_regular_file() ? read_file(entry.path()) : "";
  }
  return found;
}
