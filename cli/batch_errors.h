// Why a batch of changes to the rows of a catalog directory does not come about.
#pragma once

#include <string>

#include "host/status.h"

namespace cli {

// A catalog directory as a whole cannot be worked on.
struct DirectoryError {
  cr_status_t status;
  std::string text;
};

// One entry could not be stored. Everything of the batch is to be done again without it.
struct EntryError {
  std::string name;
  cr_status_t status;
};

// The directory's lists of containers cannot be relied on any more: their file was lost in the
// middle of the transaction, or could not be written. Everything of the batch is to be done again.
struct ListsLost {
  cr_status_t status;
};

}  // namespace cli
