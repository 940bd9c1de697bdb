// A database of entries whose file is any bytes.
#include <filesystem>
#include <fstream>

#include "fuzz/po_questions.h"
#include "fuzz/property.h"

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  std::filesystem::create_directories(po_directory());
  std::filesystem::remove(po_file() + "-journal");
  std::ofstream(po_file(), std::ios::binary) << Input(data, size).rest();
  ask_everything();
  return 0;
}
