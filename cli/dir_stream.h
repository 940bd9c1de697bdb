// Reading of directories.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

#include "refhost/fd_internal.h"

namespace cli {

// Hands every entry but "." and ".." of a directory, just opened, to `take`: its name and its S_IF
// value, which is 0 when it could not be found out. In no order. False with the reason in `errno`,
// which is that of the opening when there is no descriptor.
bool read_directory_entries(refhost::Fd directory,
                            const std::function<void(std::string name, mode_t kind)>& take);

}  // namespace cli
