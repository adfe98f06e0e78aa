// An engine's library that is the one beside it called "real.so", but complains of schemas on the
// C++ error stream, as builds do that share them with another library.
#include <dlfcn.h>

#include <filesystem>
#include <iostream>

extern "C" const void* OrtGetApiBase() {
  std::cerr << "Schema error: it is there twice\n\nthe disk is on fire\n";
  Dl_info self{};
  dladdr(reinterpret_cast<void*>(&OrtGetApiBase), &self);
  const auto real = std::filesystem::path(self.dli_fname).replace_filename("real.so");
  void* getBase = dlsym(dlopen(real.c_str(), RTLD_NOW), "OrtGetApiBase");
  return reinterpret_cast<const void* (*)()>(getBase)();
}
