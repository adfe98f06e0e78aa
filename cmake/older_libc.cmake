# What is linked to one of these targets starts on boards: it carries the C++ library, of which a
# board has another version or none, and takes nothing from libc that only new versions have.

add_library(older_libc OBJECT cmake/older_libc.c)
target_compile_options(older_libc PRIVATE -ffunction-sections)
target_link_libraries(older_libc PRIVATE quilmrun_warnings)
target_link_options(older_libc INTERFACE -static-libstdc++ -static-libgcc -Wl,--gc-sections
                                         -Wl,--wrap=__libc_start_main)

# older_libdl is needed on top by what loads libraries at run time. The library is in a directory of
# its own, so that no executable finds it beside itself.
add_library(older_libdl INTERFACE)
if(CMAKE_SYSTEM_PROCESSOR STREQUAL aarch64)
  set(libdl_map ${PROJECT_SOURCE_DIR}/cmake/older_libdl.map)
  add_library(interface_libdl SHARED cmake/older_libdl.c)
  set_target_properties(interface_libdl PROPERTIES
    OUTPUT_NAME dl SOVERSION 2 LIBRARY_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/interface_libdl
    LINK_DEPENDS ${libdl_map})
  target_link_options(interface_libdl PRIVATE "LINKER:--version-script=${libdl_map}" -nostdlib)
  add_dependencies(older_libdl interface_libdl)
  target_link_options(older_libdl INTERFACE
    "LINKER:--push-state,--no-as-needed,$<TARGET_FILE:interface_libdl>,--pop-state")
endif()
