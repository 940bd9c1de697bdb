// What a record says about the file or directory that it was made from.
#pragma once

#include <sys/stat.h>

#include "refhost/record.h"

namespace cli {

// Mode, owner, modification and change time; the rest is the entry's kind's. Times before 1970
// wrap.
void set_attributes(refhost::RecordFields* fields, const struct stat& attributes);

}  // namespace cli
