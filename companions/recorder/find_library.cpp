#include "companions/recorder/find_library.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/interposer/interposer.h"

namespace quilmrun_record {
namespace {

enum class Found { kNothing, kLibrary, kProblem };

// The first library that exists decides, as it does for the loader. The loader passes over
// libraries for other machines.
Found Try(const char* path, char* text, size_t size) {
  if (access(path, R_OK) != 0) {
    return Found::kNothing;
  }
  const char* problem = quilm_interposer::OpenRealLibrary(path);
  if (problem == quilm_interposer::kPassesOn ||
      (problem != nullptr && std::strstr(problem, "wrong ELF class") != nullptr)) {
    return Found::kNothing;
  }
  std::snprintf(text, size, "%s", problem == nullptr ? path : problem);
  return problem == nullptr ? Found::kLibrary : Found::kProblem;
}

// Returns the directories of LD_LIBRARY_PATH, of the executable's RUNPATH and of the system.
Dl_serinfo* LoaderDirectories() {
  void* executable = dlopen(nullptr, RTLD_LAZY);
  Dl_serinfo needed;
  if (executable == nullptr || dlinfo(executable, RTLD_DI_SERINFOSIZE, &needed) != 0) {
    return nullptr;
  }
  auto* directories = static_cast<Dl_serinfo*>(std::malloc(needed.dls_size));
  if (directories == nullptr || dlinfo(executable, RTLD_DI_SERINFOSIZE, directories) != 0 ||
      dlinfo(executable, RTLD_DI_SERINFO, directories) != 0) {
    std::free(directories);
    return nullptr;
  }
  return directories;
}

}  // namespace

bool FindRealLibrary(const char* cached, char* text, size_t size) {
  Dl_serinfo* directories = LoaderDirectories();
  Found found = Found::kNothing;
  for (unsigned i = 0; directories != nullptr && i < directories->dls_cnt; ++i) {
    char path[4096];
    std::snprintf(path, sizeof(path), "%s/libquilm.so", directories->dls_serpath[i].dls_name);
    found = Try(path, text, size);
    if (found != Found::kNothing) {
      break;
    }
  }
  std::free(directories);
  if (found == Found::kNothing && cached != nullptr) {
    found = Try(cached, text, size);
  }
  if (found == Found::kNothing) {
    std::snprintf(text, size,
                  "there is no libquilm.so where the tool looks; name its directory in "
                  "LD_LIBRARY_PATH");
  }
  return found == Found::kLibrary;
}

}  // namespace quilmrun_record
