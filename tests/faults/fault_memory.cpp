// The allocations of SQLite, of the library's own C functions, and of C++.
#include <sqlite3.h>

#include <cstdlib>

#include "tests/faults/fault.h"
#include "tests/support/failing_new.h"

namespace {

sqlite3_mem_methods real_memory;

void* sqlite_malloc(int size) {
  return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xMalloc(size);
}

void* sqlite_realloc(void* memory, int size) {
  return strikes(Fault::SqliteMemory) ? nullptr : real_memory.xRealloc(memory, size);
}

}  // namespace

extern "C" {

// The linker leads the calls of this program's objects here.
void* __real_malloc(size_t size);
void* __real_calloc(size_t count, size_t size);

void* __wrap_malloc(size_t size) { return strikes(Fault::CMemory) ? nullptr : __real_malloc(size); }

void* __wrap_calloc(size_t count, size_t size) {
  return strikes(Fault::CMemory) ? nullptr : __real_calloc(count, size);
}

}  // extern "C"

// SQLite keeps no store of small blocks of its own: every allocation counts.
void use_faulty_memory() {
  sqlite3_config(SQLITE_CONFIG_GETMALLOC, &real_memory);
  sqlite3_mem_methods faulty = real_memory;
  faulty.xMalloc = sqlite_malloc;
  faulty.xRealloc = sqlite_realloc;
  sqlite3_config(SQLITE_CONFIG_MALLOC, &faulty);
  sqlite3_config(SQLITE_CONFIG_LOOKASIDE, 0, 0);
  allocation_fails = [] { return strikes(Fault::CppMemory); };
}
