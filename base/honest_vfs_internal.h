// SQLite's access to files, honest about reads that fail.
#pragma once

namespace base {

// The name of an SQLite VFS under which every read that fails is an I/O error. Under the usual one
// SQLite takes EIO and its like for a damaged file system and reports SQLITE_CORRUPT, so that what
// is dropped for damage would be dropped because a disk failed for a moment. Null, for the usual
// one, when it cannot be had. From any thread.
const char* honest_vfs();

}  // namespace base
