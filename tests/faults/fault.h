// The faults that operations are run under. While one is armed, every call of its kind is counted,
// whoever makes it: SQLite through a file system that passes on to the real one, the host through
// the C library, and everybody through the allocation functions. One thread at a time.
#pragma once

#include <array>

enum class Fault {
  IoError,  // a write that fails has written its first half
  DiskFull,
  ShortRead,
  CannotOpen,
  FailedSync,
  FailedDelete,
  RefusedLock,
  SqliteMemory,
  CppMemory,       // operator new
  CMemory,         // malloc and calloc, as the library calls them
  SwallowedWrite,  // says that it was done: no software survives this, so a check must see it
};

inline constexpr std::array kIoFaults = {Fault::IoError,    Fault::DiskFull,   Fault::ShortRead,
                                         Fault::CannotOpen, Fault::FailedSync, Fault::FailedDelete,
                                         Fault::RefusedLock};
inline constexpr std::array kMemoryFaults = {Fault::SqliteMemory, Fault::CppMemory, Fault::CMemory};

inline const char* name_of(Fault fault) {
  constexpr std::array kNames = {"I/O error",    "full disk",     "short read",     "cannot open",
                                 "failed sync",  "failed delete", "refused lock",   "SQLite memory",
                                 "operator new", "malloc",        "swallowed write"};
  return kNames.at(static_cast<std::size_t>(fault));
}

// Before SQLite is used for the first time: memory first.
void use_faulty_memory();
void use_faulty_vfs();

// Lets the n-th call of the kind fail, and all after it when the fault is there for good.
void arm(Fault fault, long n, bool for_good);
// Whether the fault was reached.
bool disarm();

// Whether the call at hand fails. Allocates nothing.
bool strikes(Fault fault) noexcept;

// While SQLite's own file system calls the C library for a call that was counted already.
inline bool passing_on = false;
