#include "tests/cli/keep_fixture.h"

#include <dlfcn.h>

#include <string>

#include "host/files.h"

bool clock_is_readable = true;

extern "C" int zel_access(const char* path, int mode) {
  const std::string asked = path;
  if (asked == "/etc/tarn/fake-compliance-clock") return clock_is_readable ? 0 : -1;
  if (asked == "/etc/tarn/worm" || asked == "/opt/halyard/arbor-manage/worm") return -1;
  using Function = decltype(zel_access);
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "zel_access"))(path, mode);
}
