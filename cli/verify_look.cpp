#include "cli/verify_look.h"

namespace cli {

void Look::add_empty(const std::string& file) {
  if (disturbed_) {
    add_unexamined(file, CR_STATUS_BUSY, "is empty, and somebody works in its directory");
  } else {
    add(file, "is empty: a crash left it; an ingest removes it");
  }
}

void Look::tell(Findings* findings) {
  for (const Found& found : found_) {
    if (found.unexamined == CR_STATUS_OK) {
      findings->add(found.file, found.reason);
    } else {
      findings->add_unexamined(found.file, found.unexamined, found.reason);
    }
  }
  found_.clear();
  for (; databases_ > 0; --databases_) findings->count_database();
}

}  // namespace cli
