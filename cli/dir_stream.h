// Reading of directories.
#pragma once

#include <sys/types.h>

#include <functional>
#include <string>

namespace cli {

// Hands every entry but "." and ".." of an open directory to `take`: its name and its S_IF value,
// which is 0 when it could not be found out. In no order. False with the reason in `errno`.
bool read_directory_entries(int directory,
                            const std::function<void(std::string name, mode_t kind)>& take);

}  // namespace cli
