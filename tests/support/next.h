// The function that one of the test program's own takes the place of.
#pragma once

#include <dlfcn.h>

template <typename Function>
Function* next(const char* name, Function* /*its type*/) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}
