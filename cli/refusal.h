// Why something in a catalog is not removed.
#pragma once

#include <string>

#include "host/status.h"

namespace cli {

// An empty text when nothing stands against it.
struct Refusal {
  cr_status_t status = CR_STATUS_OK;
  std::string text;
};

// What the directory holds besides the catalog's own files: directories, rows, something foreign.
Refusal content_refusal(const std::string& root, const std::string& directory);

}  // namespace cli
