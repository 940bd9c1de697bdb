// Marks of the host interface's declarations.
#pragma once

// What the hosting process exports. Default visibility, so that the type information of the
// exception class is one and the same in the host and in the library.
#define HOST_API __attribute__((visibility("default")))

// A printf-like function: `text` and `first` are the positions of its format and its first
// argument.
#define HOST_PRINTF(text, first) __attribute__((format(printf, text, first)))
