// The allocations of the test program.
#include <cstdlib>
#include <new>

#include "fixture.h"

void* operator new(std::size_t size) {
  if (allocations_left >= 0 && allocations_left-- == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
