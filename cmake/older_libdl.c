// A libdl.so.2 to link against and never to run: the functions that were in libdl until libc took
// them in. Linked against a new libc, an executable asks for them in libc.so.6, and versions of the
// loader before 2.30 look only there. With this, it asks for them in libdl.so.2: old boards have
// them there, and for new ones it is a library that exists and is empty.

void dlopen(void) {}
void dlsym(void) {}
void dlerror(void) {}
void dlinfo(void) {}
