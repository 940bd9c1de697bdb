// The negative control of the targets: entries are printed with a letter too many.
#include <cstring>
#include <string>

#include "refhost/record.h"

char* POToStringMalloced(const _po_t* record) {
  std::string text;
  for (const refhost::NamedField& field : refhost::named_fields(record)) {
    text += (text.empty() ? "" : "|") + field.text;
  }
  return strdup((text + "x").c_str());
}
