// bridge_caller [g:LIBRARY | l:LIBRARY]... BRIDGE: opens libraries in that order, into the global
// scope or for itself, and calls the bridge functions of the library BRIDGE.
#include <dlfcn.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#include "libcrsrv/quillmisc.h"

#ifdef RUNS_OUT_OF_MEMORY
static bool may_allocate = true;

void* operator new(std::size_t size) {
  void* memory = may_allocate ? std::malloc(size) : nullptr;
  return memory != nullptr ? memory : throw std::bad_alloc();
}
void operator delete(void* memory) noexcept { std::free(memory); }
void operator delete(void* memory, std::size_t) noexcept { std::free(memory); }
#endif

namespace {

template <typename Function>
Function* function_of(void* library, const char* name) {
  return reinterpret_cast<Function*>(dlsym(library, name));
}

}  // namespace

int main(int argc, char** argv) {
#ifdef TAKES_ADDRESSES
  // Makes the linker give this program stubs that stand for the functions.
  const void* volatile address[] = {reinterpret_cast<void*>(&quill_nxattr_set),
                                    reinterpret_cast<void*>(&quill_nxattr_remove),
                                    reinterpret_cast<void*>(&quill_get_compclk)};
  static_cast<void>(address);
#endif
  for (int i = 1; i + 1 < argc; ++i) {
    const int scope = argv[i][0] == 'g' ? RTLD_GLOBAL : RTLD_LOCAL;
    if (dlopen(argv[i] + 2, RTLD_NOW | scope) == nullptr) std::printf("%s\n", dlerror());
  }
  void* bridge = dlopen(argv[argc - 1], RTLD_NOW | RTLD_NOLOAD);
  if (bridge == nullptr) return 1;
  const auto set = function_of<decltype(quill_nxattr_set)>(bridge, "quill_nxattr_set");
  const auto get = function_of<decltype(quill_nxattr_get)>(bridge, "quill_nxattr_get");
  const auto list = function_of<decltype(quill_nxattr_list)>(bridge, "quill_nxattr_list");
  const auto remove = function_of<decltype(quill_nxattr_remove)>(bridge, "quill_nxattr_remove");
  const auto clock = function_of<decltype(quill_get_compclk)>(bridge, "quill_get_compclk");
  const auto pointer = [](std::uintptr_t value) {
    void* made = nullptr;
    std::memcpy(&made, &value, sizeof made);
    return made;
  };
#ifdef RUNS_OUT_OF_MEMORY
  may_allocate = false;
#endif
  timeval now{};
  errno = 7;
  std::printf("%d\n", set(-1, pointer(1), nullptr, pointer(3), 4));
  std::printf("%d\n", get(2, pointer(5), nullptr, pointer(7)));
  std::printf("%d\n", list(5, pointer(6), pointer(7)));
  std::printf("%d\n", remove(3, pointer(9)));
  std::printf("%d", clock(&now, "/m"));
  std::printf(" %ld errno=%d\n", static_cast<long>(now.tv_sec), errno);
}
