# What is linked to one of these targets starts on boards: it carries the C++ library, of which a
# board has another version or none, and takes nothing from libc that only new versions have.

add_library(older_libc OBJECT cmake/older_libc.c)
target_compile_options(older_libc PRIVATE -ffunction-sections)
target_link_libraries(older_libc PRIVATE quilmrun_warnings)
target_link_options(older_libc INTERFACE -static-libstdc++ -static-libgcc -Wl,--gc-sections
                                         -Wl,--wrap=__libc_start_main)

# On top for what loads libraries at run time: until 2.34 the functions for that were in libdl.so.2,
# which later versions keep, though empty; so the linker has to be told not to leave it out.
add_library(older_libdl OBJECT cmake/older_libdl.c)
target_link_libraries(older_libdl PRIVATE quilmrun_warnings)
target_link_options(older_libdl INTERFACE
                    "LINKER:--push-state,--no-as-needed,-l:libdl.so.2,--pop-state")
