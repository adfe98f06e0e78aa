# A libquilm.so to link against and never to run: every function of runtime/quilm.h, doing nothing,
# under the SONAME of the board's library. So nothing of the board is needed to build for it.

set(interface_header ${PROJECT_SOURCE_DIR}/runtime/quilm.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${interface_header})
file(READ ${interface_header} declarations)
string(REGEX MATCHALL "quilm_[a-z_]+\\(" functions "${declarations}")
list(TRANSFORM functions APPEND "void) {}\n")
list(TRANSFORM functions PREPEND "void ")
list(JOIN functions "" definitions)

# In a directory of its own, so that no executable finds it beside itself.
set(interface_dir ${PROJECT_BINARY_DIR}/interface)
file(CONFIGURE OUTPUT ${interface_dir}/quilm.c CONTENT "${definitions}" @ONLY)
add_library(quilm SHARED ${interface_dir}/quilm.c)
target_include_directories(quilm INTERFACE ${PROJECT_SOURCE_DIR})
set_target_properties(quilm PROPERTIES LIBRARY_OUTPUT_DIRECTORY ${interface_dir})
