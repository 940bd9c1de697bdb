// bridge_caller [g:LIBRARY | l:LIBRARY]... BRIDGE: opens libraries in that order, into the global
// scope or for itself, and calls the bridge functions of the library BRIDGE.
#include <dlfcn.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "libcrsrv/quillmisc.h"
#include "tests/support/failing_new.h"

namespace {

void* bridge = nullptr;

template <typename Function, typename... Arguments>
int call(const char* name, Arguments... arguments) {
  return reinterpret_cast<Function*>(dlsym(bridge, name))(arguments...);
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
  bridge = dlopen(argv[argc - 1], RTLD_NOW | RTLD_NOLOAD);
  if (bridge == nullptr) return 1;
  const auto pointer = [](std::uintptr_t value) {
    void* made = nullptr;
    std::memcpy(&made, &value, sizeof made);
    return made;
  };
  allocation_fails = [] { return true; };  // in the program that has such allocations
  const auto tell = [](int result) { std::printf("%d\n", result); };
  timeval now{};
  errno = 7;
  tell(
      call<decltype(quill_nxattr_set)>("quill_nxattr_set", -1, pointer(1), nullptr, pointer(3), 4));
  tell(call<decltype(quill_nxattr_get)>("quill_nxattr_get", 2, pointer(5), nullptr, pointer(7)));
  tell(call<decltype(quill_nxattr_list)>("quill_nxattr_list", 5, pointer(6), pointer(7)));
  tell(call<decltype(quill_nxattr_remove)>("quill_nxattr_remove", 3, pointer(9)));
  std::printf("%d", call<decltype(quill_get_compclk)>("quill_get_compclk", &now, "/m"));
  std::printf(" %ld errno=%d\n", static_cast<long>(now.tv_sec), errno);
}
