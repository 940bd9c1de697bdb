// The faults that operations are run under. While one is armed, every call of its kind is counted,
// whether SQLite makes it, the host, the library or C++. One thread at a time.
#pragma once

#include <array>

enum class Fault {
  IoError,   // a write that fails has written its first half
  DiskFull,  // likewise
  ShortRead,
  FailedLook,  // SQLite's own, for journals and for whether its file has moved
  CannotOpen,
  FailedSync,
  FailedDelete,
  RefusedLock,
  SqliteMemory,
  CppMemory,       // operator new
  CMemory,         // malloc, as the library calls it
  SwallowedWrite,  // says that it was done: no software survives this, so a check must see it
};

// Before SQLite is used for the first time.
void use_faulty_memory();

// Lets the n-th call of the kind fail, and all after it when the fault is there for good.
void arm(Fault fault, long n, bool for_good);
// Whether the fault was reached.
bool disarm();

// Blocks of operator new, descriptors, bytes that SQLite holds; how often somebody closed a file
// that SQLite had open, which drops the locks that the process has on it; and entries of the
// directory for temporary files, which has to be the program's own.
using Held = std::array<long, 5>;
Held held();
