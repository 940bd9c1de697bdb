// Everything that the hosting process supplies. Declarations only: the library calls these and
// never implements one; they are resolved when it is loaded. None of them throws, except
// std::bad_alloc.
#pragma once

#include "host/daemon.h"
#include "host/files.h"
#include "host/log.h"
#include "host/po_record.h"
#include "host/status.h"
#include "host/worm.h"
