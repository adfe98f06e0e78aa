// Lets an executable or library that is built against a new glibc start on old ones, from 2.17 on.
//
// Linked statically, the C++ library and crt1.o take a few functions from libc under the names and
// versions of the glibc they were built with. Here are functions of the same names which need only
// what all versions have; the linker prefers them, and they are visible to nobody else. The board's
// own executable and library remain free to take libc's.

#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <features.h>
#include <link.h>
#include <pthread.h>
#include <sched.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <unwind.h>

// What the build warns of elsewhere is meant here: libc's reserved names, declared anew.
#define HIDDEN __attribute__((visibility("hidden")))

// ---- Since 2.32 ---------------------------------------------------------------------------------

/// 0 makes the C++ library count its references atomically, which is always right.
HIDDEN char __libc_single_threaded = 0;

// ---- Since 2.33, macros before that -------------------------------------------------------------

// On 64-bit systems the kernel's struct stat is that of libc.
#if __GLIBC_PREREQ(2, 33)
HIDDEN int stat(const char* path, struct stat* status) {
  return (int)syscall(SYS_newfstatat, AT_FDCWD, path, status, 0);
}

HIDDEN int fstat(int descriptor, struct stat* status) {
  return (int)syscall(SYS_fstat, descriptor, status);
}

HIDDEN int fstat64(int descriptor, struct stat64* status) {
  return (int)syscall(SYS_fstat, descriptor, status);
}
#endif

// ---- Since 2.34, in libpthread before that -----------------------------------------------------

enum { kOnceDone = 2, kOnceRunning = 1 };

HIDDEN int pthread_once(pthread_once_t* control, void (*initialize)(void)) {
  int state = 0;
  if (__atomic_compare_exchange_n(control, &state, kOnceRunning, 0, __ATOMIC_ACQUIRE,
                                  __ATOMIC_ACQUIRE)) {
    initialize();
    __atomic_store_n(control, kOnceDone, __ATOMIC_RELEASE);
    return 0;
  }
  while (__atomic_load_n(control, __ATOMIC_ACQUIRE) != kOnceDone) {
    sched_yield();
  }
  return 0;
}

/// Nobody calls it: the unwinder takes its presence as the sign that there may be threads.
HIDDEN int __pthread_key_create(pthread_key_t* key, void (*destroy)(void*)) {
  (void)key;
  (void)destroy;
  return ENOSYS;
}

#if defined(__aarch64__) && __GLIBC_PREREQ(2, 34)
// Before 2.34 the executable brought the function that runs its constructors, and handed it over;
// since then libc does that itself, where none is handed over. The old version does either.
__asm__(".symver start_main_of_2_17, __libc_start_main@GLIBC_2.17");
typedef void (*Constructor)(int, char**, char**);
typedef int (*Main)(int, char**, char**);
int start_main_of_2_17(Main, int, char**, Constructor, void (*)(void), void (*)(void), void*);
int __wrap___libc_start_main(Main, int, char**, Constructor, void (*)(void), void (*)(void), void*);
extern HIDDEN const Constructor __preinit_array_start[], __preinit_array_end[];
extern HIDDEN const Constructor __init_array_start[], __init_array_end[];
extern HIDDEN void _init(void);

static void RunConstructors(int argc, char** argv, char** environment) {
  for (const Constructor* run = __preinit_array_start; run != __preinit_array_end; ++run) {
    (*run)(argc, argv, environment);
  }
  _init();
  for (const Constructor* run = __init_array_start; run != __init_array_end; ++run) {
    (*run)(argc, argv, environment);
  }
}

/// Called by crt1.o in place of __libc_start_main, by the linker's option --wrap.
HIDDEN int __wrap___libc_start_main(Main run, int argc, char** argv, Constructor construct,
                                    void (*end)(void), void (*end_of_loader)(void), void* stack) {
  return start_main_of_2_17(run, argc, argv, construct != NULL ? construct : RunConstructors, end,
                            end_of_loader, stack);
}
#endif

// ---- Since 2.35 ---------------------------------------------------------------------------------

#if __GLIBC_PREREQ(2, 35)
typedef struct {
  ElfW(Addr) address;
  struct dl_find_object* found;
} Search;

/// Whether `object` holds the address; if so, where it lies and where its table for unwinding is.
static int FindIn(struct dl_phdr_info* object, size_t size, void* data) {
  (void)size;
  Search* search = data;
  int holds = 0;
  search->found->dlfo_eh_frame = NULL;
  for (int i = 0; i < object->dlpi_phnum; ++i) {
    const ElfW(Phdr)* segment = &object->dlpi_phdr[i];
    const ElfW(Addr) start = object->dlpi_addr + segment->p_vaddr;
    if (segment->p_type == PT_LOAD && search->address - start < segment->p_memsz) {
      holds = 1;
      search->found->dlfo_map_start = (void*)start;
      search->found->dlfo_map_end = (void*)(start + segment->p_memsz);
    } else if (segment->p_type == DLFO_EH_SEGMENT_TYPE) {
      search->found->dlfo_eh_frame = (void*)start;
    }
  }
  return holds && search->found->dlfo_eh_frame != NULL;
}

/// What the unwinder asks about a function on the stack while an exception is on its way.
HIDDEN int _dl_find_object(void* address, struct dl_find_object* found) {
  Search search = {(ElfW(Addr))address, found};
  return dl_iterate_phdr(FindIn, &search) != 0 ? 0 : -1;
}
#endif

// ---- Since 2.38 ---------------------------------------------------------------------------------

// Newer headers give reading of numbers other names, as C23's takes 0b11 too. What is declared here
// keeps the old name whatever the headers say.
#if __GLIBC_PREREQ(2, 38)
#define READS_AS_BEFORE(type, name)                                              \
  type before_c23_##name(const char* text, char** end, int base) __asm__(#name); \
  HIDDEN type __isoc23_##name(const char* text, char** end, int base);           \
  HIDDEN type __isoc23_##name(const char* text, char** end, int base) {          \
    return before_c23_##name(text, end, base);                                   \
  }

READS_AS_BEFORE(long, strtol)
READS_AS_BEFORE(unsigned long, strtoul)
READS_AS_BEFORE(long long, strtoll)
READS_AS_BEFORE(unsigned long long, strtoull)
#endif

// ---- Exceptions of the board's library ----------------------------------------------------------

static _Unwind_Reason_Code StopAtOnce(struct _Unwind_Context* context, void* data) {
  (void)context;
  (void)data;
  return _URC_END_OF_STACK;
}

/// The board's library throws with a libgcc of its own. On the way, functions of the one that is
/// linked here are called, which abort unless it has been used before.
__attribute__((constructor)) static void PrepareForExceptions(void) {
  _Unwind_Backtrace(StopAtOnce, NULL);
}
