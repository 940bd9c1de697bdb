// Retention locks: the flags that set them and the clock that they are measured against.
// SQLitePODB::set_retention and get_retention set and report them.
#pragma once

#include <sys/time.h>

#include "base/export.h"

// Bits of set_retention's flag word.
inline constexpr unsigned long RETENTION_IMMUTABLE = 1;               // the image becomes immutable
inline constexpr unsigned long RETENTION_LOCK = 2;                    // it is locked for the period
inline constexpr unsigned long RETENTION_CLOUD = 0x1000000000000000;  // on cloud storage

// Fills `now` with the compliance clock, in whole seconds: the system clock while the marker
// "/etc/tarn/fake-compliance-clock" exists, otherwise the clock of the file system mounted at the
// path in the first line of "/etc/tarn/worm" or, where that names nothing that exists, at
// "/opt/halyard/arbor-manage/worm". The mount point is found out once in the life of the process.
//
// Returns 0; CR_STATUS_BAD_ARG when `now` is null; after a log line, CR_STATUS_NOT_PROVIDED when
// there is no mount point or the clock is not enabled there, CR_STATUS_FAILED otherwise. `now` is
// written on success only. May be called from any thread.
POCATALOG_API int get_compclk(timeval* now);
