// Plain functions for the hosting server: daemons, threads, modes, old logs, catalog paths.
//
// They keep no state and may be called from any thread, SDDaemonStart from the main thread. Texts
// and output arguments are not null unless said otherwise.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "base/export.h"
#include "host/status.h"

// Becomes the only running daemon of that name: makes sure that no other instance is active, turns
// the process into a daemon, takes the lock `name` in "/var/run" and, when `flag` is 0, changes to
// "/tmp" or else "/var/tmp". `flag` other than 0 is handed to the host's DaemonInit as true.
//
// To be called once, early, before anything is opened. Returns 0; CR_STATUS_HELD when another
// instance is active, nothing done; or the status of the step that failed, which was logged and is
// not undone: a daemon without its lock must exit.
POCATALOG_API cr_status_t SDDaemonStart(const char* name, int flag);

// 0 when no other instance of the daemon `name` is active, CR_STATUS_HELD when one is, another
// status when that could not be found out. Logs everything but 0.
POCATALOG_API cr_status_t SDDaemonActive(const char* name);

// Creates a thread that runs `start(arg)`, detached when `detached` is exactly 1, otherwise
// joinable. A stack size of 0 bytes, and one that the system refuses, gives the default. Returns
// what pthread_create returns.
POCATALOG_API int SDThreadCreate(pthread_t* thread, void* (*start)(void*), void* arg,
                                 std::size_t stack_size, int detached);

// The text of a server mode, which is one bit, as logs and as the status output write it; "unknown"
// for every other value. Static texts.
POCATALOG_API const char* SDModeToString(std::int32_t mode);
POCATALOG_API const char* SDModeToStatString(std::int32_t mode);

// Both functions below walk a directory, into its subdirectories when `descend` is greater than 0,
// delete regular files whose age is over a limit, and remove subdirectories that are empty then.
// Age is by modification time, in days of 86400 seconds; a file exactly as old as the limit stays.
// Names that begin with "." are never touched, symbolic links neither followed nor deleted. A path
// of more than 4095 bytes is passed over. What happens, failures too, shows in traces only.

// Deletes files older than `maxdays`, and empty files older than `emptydays`; a limit of 0 or less
// is none. `getdays`, unless null, tells the `maxdays` of a subdirectory from its bare name.
POCATALOG_API void SDCleanLogs(const char* path, int maxdays, int descend, int emptydays,
                               int (*getdays)(const char* name));

// Deletes files older than `maxdays` whose path, directories included, contains `key`. Does nothing
// when `maxdays` is 0 or less. The empty key is in every path.
POCATALOG_API void SDCleanKeyLogs(const char* path, const char* key, int maxdays, int descend);

extern "C" {

// True when `path` is a directory of path objects: there is a "po.db" in it, or it exists and lies
// exactly three levels below the last "/catalog/" of its path. Asks the file system on every call.
POCATALOG_API bool IsPodbPath(const std::string& path);

// The backup identifier and the image name of a catalog entry. Both are the basename itself, by
// design; returns 0.
POCATALOG_API int basename2backupid(const std::string& basename, std::string& backupid,
                                    std::string& image);

}  // extern "C"
