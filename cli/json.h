// Lines of JSON for machines.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "cli/command.h"

namespace cli {

// Sets `field` to a name or path, which may be any bytes. What is not UTF-8 is set in its printable
// form, and its bytes go to `<field>_hex`.
void set_name(nlohmann::ordered_json& object, const std::string& field, const std::string& name);

// Prints the object as one line of ASCII.
void print_line(const Console& console, const nlohmann::ordered_json& object);

}  // namespace cli
