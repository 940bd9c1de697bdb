// Files, paths, the clock and the sleep of the host.
//
// Functions that return `cr_status_t` return 0 on success and a status otherwise,
// CR_STATUS_NOT_FOUND for a missing file, and leave the reason in `errno`. Paths are NUL-terminated
// byte strings.
#pragma once

#include <sys/stat.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include "host/api.h"
#include "host/status.h"

// Directions of ConvertStringCase.
enum CASE_DIR : int { CASE_DIR_UPPER = 0, CASE_DIR_LOWER = 1 };

// Units of gethrtime.
using hrtime_t = std::int64_t;

extern "C" {

// 0 when the path exists (mode 0) or may be used as `mode` says (W_OK).
HOST_API cr_status_t wa_access(const char* path, int mode);

// Fills `out`; symbolic links are followed.
HOST_API cr_status_t wa_stat(const char* path, struct stat* out);

// True for a directory.
HOST_API bool wa_isdir(const char* path);

// Creates the directory and its missing parents with `mode`; 0 when it is there already. A host may
// refuse symbolic links in the path, as the reference host does: the catalog root is given without.
HOST_API cr_status_t wa_createtree(const char* path, unsigned int mode);

// Delete a file; a directory with all that it holds, symbolic links not followed.
HOST_API cr_status_t wa_deletefile(const char* path);
HOST_API cr_status_t wa_deletetree(const char* path);

// As POSIX access, unlink and rmdir: 0, or -1 with `errno`. The library uses modes 0 and 7.
HOST_API int zel_access(const char* path, int mode);
HOST_API int zel_unlink(const char* path);
HOST_API int zel_rmdir(const char* path);

// Copies at most `size` - 1 bytes and the terminator; returns the length of `source`.
HOST_API std::size_t zelstrcpy(char* target, const char* source, std::size_t size);

// True when file names are case-sensitive on this system.
HOST_API bool OSIsCaseSensitive();

// A monotonic high-resolution clock, and the conversion of a difference to seconds.
HOST_API hrtime_t gethrtime();
HOST_API double hrtime2seconds(hrtime_t delta);

// Sleeps for the given number of seconds.
HOST_API void ZelSleep(unsigned int seconds);

}  // extern "C"

// Replaces `*content` by the whole file.
HOST_API cr_status_t wa_readfile(const char* path, std::string* content);

// Writes the whole file: `append` false (the library never appends) replaces what was there, a
// symbolic link included.
HOST_API cr_status_t wa_writefile(const char* path, const std::string& content, bool append);

// The part before the last "/" and the part after it.
HOST_API std::string getdirname(const std::string& path);
HOST_API std::string getbasename(const std::string& path);

// Converts in place; two spellings that name one file on a case-insensitive system become equal.
HOST_API void ConvertStringCase(std::string& text, CASE_DIR direction);
