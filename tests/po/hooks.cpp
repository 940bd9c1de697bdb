#include <dlfcn.h>

#include <cstdlib>
#include <new>

#include "fixture.h"

void* operator new(std::size_t size) {
  if (hooks::allocations_left >= 0 && hooks::allocations_left-- == 0) throw std::bad_alloc();
  if (void* memory = std::malloc(size)) return memory;
  throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }

extern "C" _po_t* POCreate() {
  return hooks::no_records ? nullptr : reinterpret_cast<_po_t* (*)()>(dlsym(RTLD_NEXT, __func__))();
}
