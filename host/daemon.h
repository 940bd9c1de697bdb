// Daemons and their single-instance locks. All return 0 on success and leave the reason in `errno`
// otherwise, for _crMapError.
#pragma once

#include "host/api.h"

extern "C" {

// Turns the process into a daemon, before it has other threads. `foreground` true keeps it attached
// to its terminal and directory.
HOST_API int DaemonInit(bool foreground);

// Takes the lock `name` in `directory` for the life of the process and records its pid there.
HOST_API int DaemonLockSimple(const char* directory, const char* name);

// 0 when the lock is free. When a live process holds it, _crMapError answers CR_STATUS_HELD.
HOST_API int DaemonLockSimpleTest(const char* directory, const char* name);

// The pid that the holder of the lock tested last recorded, as text; may be null. Per thread.
HOST_API const char* DaemonLockSimpleRead();

}  // extern "C"
