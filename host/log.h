// Log and trace lines. All functions may be called from any thread at once and leave `errno` alone.
#pragma once

#include "host/api.h"
#include "host/status.h"

extern "C" {

// Write one line of the level that the name says; `status` is reported with the message,
// CR_STATUS_NONE when no particular status belongs to it.
HOST_API void ErrorA(cr_status_t status, const char* format, ...) HOST_PRINTF(2, 3);
HOST_API void WarningA(cr_status_t status, const char* format, ...) HOST_PRINTF(2, 3);
HOST_API void InfoA(cr_status_t status, const char* format, ...) HOST_PRINTF(2, 3);

// True when tracing is enabled; the library formats trace lines only then.
HOST_API bool TraceOn();

// Writes one trace line.
HOST_API void __Trace(const char* format, ...) HOST_PRINTF(1, 2);

}  // extern "C"
