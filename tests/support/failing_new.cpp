// The allocations of a test program.
#include "tests/support/failing_new.h"

#include <cstddef>
#include <cstdlib>
#include <new>

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
  if (allocation_fails != nullptr && allocation_fails()) return nullptr;
  // Not malloc, which a program may let fail on its own account.
  void* memory = nullptr;
  return posix_memalign(&memory, alignof(std::max_align_t), size) == 0 ? memory : nullptr;
}
void* operator new(std::size_t size) {
  if (void* const memory = operator new(size, std::nothrow)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
