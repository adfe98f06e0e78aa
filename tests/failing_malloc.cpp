// A malloc() that fails on demand, for processes with the scripted runtime. It counts what the tool
// allocates after the start of the process, outside of runtime calls. The environment variable
// FAILING_ALLOCATION tells which allocation fails: N, or N+ for all from the N-th on. The count
// goes to standard error at the end.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "runtime/scripted/script.h"

// These are the C library's own functions.
// NOLINTBEGIN(bugprone-reserved-identifier, readability-identifier-naming)
extern "C" void* __libc_malloc(size_t size);
extern "C" void* __libc_calloc(size_t count, size_t size);
extern "C" void* __libc_realloc(void* memory, size_t size);
// NOLINTEND(bugprone-reserved-identifier, readability-identifier-naming)

namespace {

long allocations = 0;
long failing = 0;
bool allFollowing = false;

// Runs after the C++ library has taken the memory from which it throws std::bad_alloc.
__attribute__((constructor)) void ReadEnvironment() {
  if (const char* fail = std::getenv("FAILING_ALLOCATION")) {
    char* end = nullptr;
    failing = std::strtol(fail, &end, 10);
    allFollowing = *end == '+';
  }
}

__attribute__((destructor)) void ShowCount() {
  std::fprintf(stderr, "%ld allocations\n", allocations);
}

bool IsRefused() {
  if (callsInProgress > 0) {
    return false;
  }
  ++allocations;
  errno = ENOMEM;
  return allocations == failing || (allFollowing && allocations > failing);
}

}  // namespace

extern "C" {

void* malloc(size_t size) {
  return IsRefused() ? nullptr : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
  return IsRefused() ? nullptr : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
  return IsRefused() ? nullptr : __libc_realloc(memory, size);
}
}
