// Takes the place of the host's function, so that tests can act in the middle of a directory.
#include <cstdlib>
#include <cstring>

#include "tests/cli/ingest_fixture.h"

std::function<bool(const _po_t*)> on_record_printed;

char* POToStringMalloced(const _po_t* record) {
  static const auto real =
      reinterpret_cast<char* (*)(const _po_t*)>(dlsym(RTLD_NEXT, "POToStringMalloced"));
  if (!on_record_printed || !on_record_printed(record)) return real(record);
  return strdup(std::string(2048, 'x').c_str());
}
