// Whoever goes along with a check of a catalog.
#pragma once

#include <string>

namespace cli {

class CheckObserver {
 public:
  CheckObserver() = default;
  CheckObserver(const CheckObserver&) = delete;
  CheckObserver& operator=(const CheckObserver&) = delete;
  virtual ~CheckObserver() = default;

  // The record of a file's row that is sound. A read lock is held: to be short.
  virtual void sound_record(const std::string& text) = 0;

  // Before each directory and after each page of rows, while no lock is held. May wait, and ends
  // the check by throwing.
  virtual void between_pages() = 0;
};

}  // namespace cli
