#include "cli/list_faults.h"

#include <fmt/format.h>
#include <sqlite3.h>

#include <cstddef>
#include <cstdint>
#include <limits>

namespace cli {
namespace {

using Faults = std::vector<std::string>;

constexpr unsigned int kVersion = 2;

// Reading turns an older version into this one: only the bytes tell.
unsigned int stored_version(std::string_view bytes) {
  return static_cast<unsigned char>(bytes[0]) +
         (static_cast<unsigned int>(static_cast<unsigned char>(bytes[1])) << 8U);
}

void check_containers(UDCIDRecord* list, Faults* faults) {
  unsigned long container = 0;
  unsigned long bytes = 0;
  unsigned long last = kLastReservedContainer;
  for (unsigned int index = 0; list->get_next(container, bytes, index) == CR_STATUS_OK;) {
    if (container <= kLastReservedContainer) {
      return faults->push_back(fmt::format("container {} cannot exist", container));
    }
    if (container <= last) {
      return faults->push_back(fmt::format("container {} follows container {}", container, last));
    }
    last = container;
  }
}

void check_list(std::string_view bytes, Faults* faults) {
  constexpr std::size_t kFrame = 12;
  constexpr std::size_t kEntry = 16;
  UDCIDRecord list;
  if (decode_list(bytes, &list) != CR_STATUS_OK) {
    return faults->push_back("the list's checksum or size is wrong");
  }
  const unsigned int version = stored_version(bytes);
  if (version != kVersion) {
    return faults->push_back(fmt::format("the list's version is {}, not {}", version, kVersion));
  }
  const std::size_t size = kFrame + kEntry * std::size_t{list.ndcid};
  if (bytes.size() != size) {
    faults->push_back(fmt::format("the list takes {} bytes, not {}", bytes.size(), size));
  }
  // Who has no data has no list.
  if (list.ndcid == 0) faults->emplace_back("the list is empty");
  check_containers(&list, faults);
}

}  // namespace

cr_status_t decode_list(std::string_view bytes, UDCIDRecord* list) {
  if (bytes.empty() || bytes.size() > std::numeric_limits<unsigned int>::max()) {
    return CR_STATUS_BAD_DATA;
  }
  // It is only read there.
  auto* data = reinterpret_cast<unsigned char*>(const_cast<char*>(bytes.data()));
  return list->Deserialize(data, static_cast<unsigned int>(bytes.size()));
}

Faults list_faults(const RawColumn& poid, int list_type, std::string_view list) {
  Faults faults;
  check_text("poid", poid, &faults);
  if (faults.empty() && !POIDStringValidate(poid.bytes.c_str())) {
    faults.emplace_back("poid is not valid");
  }
  if (list_type != SQLITE_BLOB) {
    faults.push_back(fmt::format("udcids is {}, not a blob", type_name(list_type)));
  } else {
    check_list(list, &faults);
  }
  return faults;
}

}  // namespace cli
