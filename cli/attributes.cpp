#include "cli/attributes.h"

#include <string>

namespace cli {

void set_attributes(refhost::RecordFields* fields, const struct stat& attributes) {
  fields->mode = attributes.st_mode;
  fields->owner = std::to_string(attributes.st_uid) + ":" + std::to_string(attributes.st_gid);
  fields->mtime = static_cast<std::uint64_t>(attributes.st_mtim.tv_sec);
  fields->ctime = static_cast<std::uint64_t>(attributes.st_ctim.tv_sec);
}

}  // namespace cli
