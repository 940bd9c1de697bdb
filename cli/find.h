// `pocatalog find`: files by name, content, size and time.
#pragma once

#include <string>

#include "cli/command.h"

namespace cli {

struct FindOptions {
  std::string root;
  std::string pattern;
  std::string under;  // a directory below the root; the whole catalog when empty
  std::string poid;   // the content; any when empty
  std::string size;   // ">N" or "<N" bytes; any when empty
  std::string newer;  // for parse_time: modified after that; any when empty
  bool nul = false;
};

// Prints the path below the root of every file entry that meets all conditions: directory by
// directory, parents first, in byte order of the names.
int find(const Console& console, const FindOptions& options);

}  // namespace cli
