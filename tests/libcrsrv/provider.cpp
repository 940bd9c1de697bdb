// A stand-in for the attribute library: tells on standard output what reached it.
#include <sys/time.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

namespace {
const char* text(const void* argument) { return static_cast<const char*>(argument); }
}  // namespace

#pragma GCC visibility push(default)
extern "C" {

int quill_nxattr_set(std::int32_t file, void* a, void* b, void* c, std::int32_t d) {
  return std::printf("set %d %s %s %s %d\n", file, text(a), text(b), text(c), d) > 0 ? 41 : 0;
}

int quill_nxattr_get(std::int32_t file, void* a, void* b, void* c) {
  return std::printf("get %d %s %s %s\n", file, text(a), text(b), text(c)) > 0 ? 42 : 0;
}

// Hands the call on to `back`, as a second bridge in the process would.
int quill_nxattr_list(std::int32_t file, void* a, void* back) {
  std::printf("list %d %s\n", file, text(a));
  return reinterpret_cast<decltype(&quill_nxattr_list)>(back)(file, a, back);
}

int quill_nxattr_remove(std::int32_t file, void* a) {
  return std::printf("remove %d %s\n", file, text(a)) > 0 ? 44 : 0;
}

// The mount point's last letter decides: "s" for a file system without the clock, "f" for one that
// fails, "q" for one that fails without a reason.
int quill_get_compclk(timeval* now, const char* mount_point) {
  const char kind = mount_point[std::strlen(mount_point) - 1];
  if (kind == 's') errno = EOPNOTSUPP;
  if (kind == 'f') errno = EIO;
  if (kind == 's' || kind == 'f' || kind == 'q') return -1;
  *now = {4711, 999999};
  return 0;
}

}  // extern "C"
#pragma GCC visibility pop
