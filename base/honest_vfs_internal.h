// SQLite's access to files, honest about what fails.
#pragma once

namespace base {

// The name of an SQLite VFS under which a file that cannot be read or looked for is an I/O error.
// The system's own takes EIO and its like for damage (SQLITE_CORRUPT) when it reads, so that what
// is dropped for damage would be dropped because a disk failed for a moment, and takes a journal
// that it cannot look for as absent, so that it would read a file that was torn by a crash.
//
// Null, for the default one, when that is the process's own: its files are its affair. A name that
// SQLite refuses when there was no memory for this. From any thread.
const char* honest_vfs();

}  // namespace base
