// Copies of databases to try things on.
#pragma once

#include <string>

#include "host/status.h"

namespace cli {

// A copy of a database in a directory of its own, below the system's directory for temporary files;
// gone with the object.
class ScratchCopy {
 public:
  ScratchCopy() = default;
  ScratchCopy(const ScratchCopy&) = delete;
  ScratchCopy& operator=(const ScratchCopy&) = delete;
  ~ScratchCopy();

  // What is committed, as of one moment; whoever writes meanwhile waits. Called once.
  cr_status_t make(const std::string& database);

  std::string file() const { return directory_ + "/copy.db"; }

 private:
  std::string directory_;
};

}  // namespace cli
