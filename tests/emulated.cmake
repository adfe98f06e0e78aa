# The whole program under emulation: what runs without an engine.

set(QUILMRUN_NATIVE ${PROJECT_SOURCE_DIR}/build/release/quilmrun CACHE FILEPATH
    "An executable for this machine, which is none for a board")

# The runtimes of tests start on an old libc too, as a board's does, and throw with its libgcc.
foreach(runtime quilm scripted_runtime)
  target_sources(${runtime} PRIVATE $<TARGET_OBJECTS:older_libc>)
  target_link_libraries(${runtime} PRIVATE older_libdl)
  target_link_options(${runtime} PRIVATE -static-libstdc++ LINKER:--exclude-libs,libstdc++.a
                                         LINKER:--gc-sections)
endforeach()

# As the scripts call it: like any executable.
set(emulated ${CMAKE_CURRENT_BINARY_DIR}/quilmrun)
file(GENERATE OUTPUT ${emulated}
  CONTENT "#!/bin/sh\nexec '${CMAKE_CROSSCOMPILING_EMULATOR}' '$<TARGET_FILE:quilmrun>' \"$@\"\n"
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)

foreach(test bad_input_test host_runtime_test scripted_runtime_test package_test rpn_data_test rules_test)
  add_test(NAME ${test} COMMAND ${PYTHON3} ${CMAKE_CURRENT_SOURCE_DIR}/${test}.py)
  set_tests_properties(${test} PROPERTIES ENVIRONMENT
    "QUILMRUN=${emulated};QUILMRUN_NATIVE=${QUILMRUN_NATIVE};HOST_RUNTIME=$<TARGET_FILE:quilm>;EMULATOR=${CMAKE_CROSSCOMPILING_EMULATOR};VERSION=${PROJECT_VERSION};QUILMRUN_BUILD=${PROJECT_BINARY_DIR};PYTHONDONTWRITEBYTECODE=1")
endforeach()

# The packages, made from a build of their own: unpacked, looked at and run.
add_test(NAME package COMMAND ${PROJECT_SOURCE_DIR}/scripts/package)
set_tests_properties(package PROPERTIES FIXTURES_SETUP packages)
# Which also makes the native executable.
set_tests_properties(package_test PROPERTIES FIXTURES_REQUIRED packages)

# Linked against a library in C++, which the one for the board is not.
add_test(NAME check_board COMMAND ${PROJECT_SOURCE_DIR}/scripts/check-board $<TARGET_FILE:quilmrun>)
