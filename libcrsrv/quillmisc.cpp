#include "libcrsrv/quillmisc.h"

#include <dlfcn.h>
#include <elf.h>
#include <link.h>

#include <atomic>
#include <cerrno>
#include <new>
#include <string>
#include <vector>

namespace {

constexpr const char* kLibrary = "/usr/lib64/quillmisc.so";

// Of the last attempt to load the library. Never closed: the reference count may grow.
std::atomic<void*> libquillmisc_handlep{nullptr};

// This module is told by where it is loaded: the address of one of the bridge's functions would be
// that of whoever comes first with the name.
const void* own_module() {
  Dl_info info{};
  dladdr(&libquillmisc_handlep, &info);
  return info.dli_fbase;
}

// The bridge exports the very names that it looks up, so a search finds the bridge itself, or an
// executable's stub for it. Neither is a provider.
bool is_provider(const void* function) {
  Dl_info info{};
  void* entry = nullptr;
  if (function == nullptr || dladdr1(function, &info, &entry, RTLD_DL_SYMENT) == 0) return false;
  const auto* symbol = static_cast<const ElfW(Sym)*>(entry);
  const bool is_stub = symbol != nullptr && symbol->st_shndx == SHN_UNDEF;
  return info.dli_fbase != own_module() && !is_stub;
}

void* provided_by(void* scope, const char* name) {
  void* function = dlsym(scope, name);
  return is_provider(function) ? function : nullptr;
}

// Called from C, so out of memory ends the walk.
int append_name(dl_phdr_info* object, std::size_t, void* names) try {
  static_cast<std::vector<std::string>*>(names)->emplace_back(object->dlpi_name);
  return 0;
} catch (const std::bad_alloc&) {
  return 1;
}

// In load order. Collected first: nothing may be opened while they are walked.
std::vector<std::string> loaded_objects() {
  std::vector<std::string> names;
  dl_iterate_phdr(append_name, &names);
  return names;
}

// Objects opened after this module was are behind it in the global scope, where no search from here
// gets past it: they are asked one by one. The object of a found function stays referenced.
void* found_in_loaded_objects(const char* name) {
  for (const std::string& object : loaded_objects()) {
    void* handle = dlopen(object.c_str(), RTLD_LAZY | RTLD_NOLOAD);
    if (handle == nullptr) continue;
    void* function = provided_by(handle, name);
    if (function != nullptr) return function;
    dlclose(handle);
  }
  return nullptr;
}

// The library alone when it is there. Without it the search has a null handle, which means the
// global scope, intended: there a provider may be that is loaded already.
void* found_function(const char* name) {
  void* handle = dlopen(kLibrary, RTLD_LAZY);
  libquillmisc_handlep = handle;
  void* function = provided_by(handle, name);
  if (function != nullptr || handle != nullptr) return function;
  function = provided_by(RTLD_NEXT, name);
  return function != nullptr ? function : found_in_loaded_objects(name);
}

// Stores the attribute library's function `name`, or null. Leaves `errno` alone.
void quillmisc_lib_setup(const char* name, void** out) {
  const int kept = errno;
  *out = found_function(name);
  errno = kept;
}

// Marks a thread as being inside a bridge function, for a scope.
class Entered {
 public:
  explicit Entered(bool& inside) : inside_(inside) { inside_ = true; }
  Entered(const Entered&) = delete;
  Entered& operator=(const Entered&) = delete;
  ~Entered() { inside_ = false; }

 private:
  bool& inside_;
};

// Coming here again from the function that was found means that it is no provider but a way back.
template <auto Bridge, typename... Arguments>
int forwarded(const char* name, Arguments... arguments) {
  thread_local bool inside = false;
  if (inside) return EOPNOTSUPP;
  const Entered entered(inside);
  void* function = nullptr;
  quillmisc_lib_setup(name, &function);
  if (function == nullptr) return EOPNOTSUPP;
  return reinterpret_cast<decltype(Bridge)>(function)(arguments...);
}

}  // namespace

int quill_nxattr_set(std::int32_t file, void* a, void* b, void* c, std::int32_t d) {
  return forwarded<&quill_nxattr_set>(__func__, file, a, b, c, d);
}

int quill_nxattr_get(std::int32_t file, void* a, void* b, void* c) {
  return forwarded<&quill_nxattr_get>(__func__, file, a, b, c);
}

int quill_nxattr_list(std::int32_t file, void* a, void* b) {
  return forwarded<&quill_nxattr_list>(__func__, file, a, b);
}

int quill_nxattr_remove(std::int32_t file, void* a) {
  return forwarded<&quill_nxattr_remove>(__func__, file, a);
}

int quill_get_compclk(timeval* now, const char* mount_point) {
  return forwarded<&quill_get_compclk>(__func__, now, mount_point);
}
