// What a crash may leave behind.
#pragma once

#include <string>

#include "host/api.h"

namespace refhost {

// Whether a file of this name is a whole-file write that never took its place. Who is alone in a
// directory may delete it.
HOST_API bool is_unfinished_write(const std::string& name);

}  // namespace refhost
