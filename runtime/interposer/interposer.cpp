#include "runtime/interposer/interposer.h"

#include <dlfcn.h>

#include <cstdio>

namespace quilm_interposer {

void* realFunctions[kCallCount];

const char* const kPassesOn = "this library passes calls on and is no runtime itself";

const char* OpenRealLibrary(const char* path) {
  static char problem[512];
  void* library = dlopen(path, RTLD_NOW | RTLD_LOCAL);
  if (library == nullptr) {
    return dlerror();
  }
  for (size_t i = 0; i < kCallCount; ++i) {
    realFunctions[i] = dlsym(library, kNames[i]);
    if (realFunctions[i] == nullptr) {
      std::snprintf(problem, sizeof(problem), "%s has no function %s", path, kNames[i]);
      return problem;
    }
  }
  // It would call itself until the stack is full.
  if (realFunctions[0] == reinterpret_cast<void*>(&quilm_init)) {
    return kPassesOn;
  }
  return nullptr;
}

}  // namespace quilm_interposer
