// The mark of what leaves the shared library.
#pragma once

// An external interface: everything else is hidden. On exception classes it exports their type
// information, so that a handler in another module matches.
#define POCATALOG_API __attribute__((visibility("default")))
