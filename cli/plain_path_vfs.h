// SQLite's access to files, without its look at every component of a path.
#pragma once

namespace cli {

// The name of an SQLite VFS that takes absolute paths as they are, if no symbolic link stands at
// their end. The usual one resolves all links, with a system call for each component: a tenth of
// the time that a listing takes. A link to the database itself matters, because the journal lies
// beside what it leads to; those above lead to the same journal either way, and the paths of a
// catalog have none: its root is given without links, and none below it is followed.
//
// Otherwise the library's (base/honest_vfs_internal.h), whose name it is when this one cannot be
// had. From any thread.
const char* plain_path_vfs();

}  // namespace cli
