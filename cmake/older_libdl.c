// Like older_libc.c, for what loads libraries at run time. In a file of its own, since the linker
// keeps asking for functions of other versions even where it leaves out the code that calls them.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <features.h>

#define INSIDE __attribute__((visibility("hidden")))

#if defined(__aarch64__) && __GLIBC_PREREQ(2, 34)
__asm__(".symver dlopen_of_2_17, dlopen@GLIBC_2.17");
__asm__(".symver dlsym_of_2_17, dlsym@GLIBC_2.17");
__asm__(".symver dlerror_of_2_17, dlerror@GLIBC_2.17");
__asm__(".symver dlinfo_of_2_17, dlinfo@GLIBC_2.17");
void* dlopen_of_2_17(const char*, int);
void* dlsym_of_2_17(void*, const char*);
char* dlerror_of_2_17(void);
int dlinfo_of_2_17(void*, int, void*);

INSIDE void* dlopen(const char* path, int flags) {
  return dlopen_of_2_17(path, flags);
}

INSIDE void* dlsym(void* handle, const char* name) {
  return dlsym_of_2_17(handle, name);
}

INSIDE char* dlerror(void) {
  return dlerror_of_2_17();
}

INSIDE int dlinfo(void* handle, int request, void* answer) {
  return dlinfo_of_2_17(handle, request, answer);
}
#endif
