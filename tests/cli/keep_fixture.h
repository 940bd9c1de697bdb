// The command on a catalog where the compliance clock is in the test's hand.
#pragma once

#include <ctime>
#include <filesystem>
#include <fstream>

#include "tests/cli/read_fixture.h"

// While this is false there is no compliance clock; otherwise it is the system's.
extern bool clock_is_readable;

class KeepTest : public CatalogTest {
 protected:
  KeepTest() { clock_is_readable = true; }

  // Arguments have blanks between them; '' is an empty one.
  static Outcome command(const std::string& line) {
    std::vector<std::string> arguments;
    std::istringstream words(line);
    for (std::string word; words >> word;) arguments.push_back(word == "''" ? "" : word);
    return run_command(arguments);
  }
  std::string ingest_of(const std::string& source) const {
    return "ingest " + source + " --root " + root_ + " --dsid 5 --client client --policy policy ";
  }
  static std::string read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  static void write(const std::string& path, const std::string& content) {
    std::ofstream(path, std::ios::binary) << content;
  }
  static void age(const std::string& path) {
    using Clock = std::filesystem::file_time_type::clock;
    std::filesystem::last_write_time(path, Clock::now() - std::chrono::hours(24 * 40));
  }

  const std::string entry_ = root_ + " " + image_ + "/img ";
};
