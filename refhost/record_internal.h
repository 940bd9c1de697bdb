// The record behind the host's opaque pointer, and its text form.
#pragma once

#include <string>
#include <string_view>

#include "refhost/record.h"

struct _po_t {
  refhost::RecordFields fields;
};

namespace refhost {

std::string print_record(const RecordFields& fields);

// False, and `fields` as they were, unless printing what the text says gives the same text.
bool parse_record(std::string_view text, RecordFields& fields);

}  // namespace refhost
