// The bridge to the storage file system's attribute and clock library, which not every installation
// has.
//
// Each function calls the function of its own name in "/usr/lib64/quillmisc.so" or, when that file
// cannot be loaded, in another provider of the process: an object in the global scope, or any other
// loaded one. Arguments are passed on unchanged and never inspected; the attribute library's header
// gives them their meaning. Returns the provider's result, or EOPNOTSUPP (95) when there is none;
// `errno` is then as it was. May be called from any thread, also while a provider runs.
#pragma once

#include <sys/time.h>

#include <cstdint>

#include "base/export.h"

extern "C" {

POCATALOG_API int quill_nxattr_set(std::int32_t file, void* a, void* b, void* c, std::int32_t d);
POCATALOG_API int quill_nxattr_get(std::int32_t file, void* a, void* b, void* c);
POCATALOG_API int quill_nxattr_list(std::int32_t file, void* a, void* b);
POCATALOG_API int quill_nxattr_remove(std::int32_t file, void* a);

// Fills `now` with the compliance clock of the file system mounted at `mount_point`.
POCATALOG_API int quill_get_compclk(timeval* now, const char* mount_point);

}  // extern "C"
